// The configuration interface, implemented by a caller and asked through the base.
#include "agent/IConfig.h"

#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <memory>
#include <type_traits>

namespace {

class MapConfig : public agent::IConfig {
public:
    explicit MapConfig(bool* destroyed) : destroyed_(destroyed) {}
    MapConfig(MapConfig const&) = delete;
    MapConfig& operator=(MapConfig const&) = delete;
    ~MapConfig() override { *destroyed_ = true; }

    bool get(std::string const& key, unsigned long& value) const override {
        auto const found = values.find(key);
        if (found == values.end()) {
            return false;
        }
        value = found->second;
        return true;
    }

    std::map<std::string, unsigned long> values;

private:
    bool* destroyed_;
};

TEST(Config, AnswersThroughTheInterface) {
    bool destroyed = false;
    auto owned = std::make_unique<MapConfig>(&destroyed);
    owned->values["cache"] = std::numeric_limits<unsigned long>::max();
    std::unique_ptr<agent::IConfig> const config = std::move(owned);

    unsigned long value = 1000;
    EXPECT_TRUE(config->get("cache", value));
    EXPECT_EQ(value, std::numeric_limits<unsigned long>::max());
}

TEST(Config, AMissingKeyKeepsTheCallersDefault) {
    bool destroyed = false;
    std::unique_ptr<agent::IConfig> const config = std::make_unique<MapConfig>(&destroyed);
    unsigned long value = 1000;
    EXPECT_FALSE(config->get("cache", value));
    EXPECT_EQ(value, 1000U);
}

TEST(Config, IsDestroyedThroughTheInterface) {
    bool destroyed = false;
    std::unique_ptr<agent::IConfig> config = std::make_unique<MapConfig>(&destroyed);
    config.reset();
    EXPECT_TRUE(destroyed);
    EXPECT_TRUE(std::has_virtual_destructor_v<agent::IConfig>);
    EXPECT_TRUE(std::is_abstract_v<agent::IConfig>);
}

} // namespace
