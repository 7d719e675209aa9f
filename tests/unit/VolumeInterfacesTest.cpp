// The volume interfaces: their defaults, and what an implementation must answer for.
#include "agent/core/IVolumeDevice.h"
#include "agent/core/IVolumeReader.h"
#include "agent/core/backup/VolumeReader.h"

#include <gtest/gtest.h>
#include <memory>
#include <type_traits>

namespace {

using agent::core::IVolumeDevice;
using agent::core::IVolumeReader;

/// Implements what must be implemented and nothing else.
class SmallestReader : public IVolumeReader {
public:
    explicit SmallestReader(bool* destroyed) : destroyed_(destroyed) {}
    SmallestReader(SmallestReader const&) = delete;
    SmallestReader& operator=(SmallestReader const&) = delete;
    ~SmallestReader() override { *destroyed_ = true; }

    long read(void*, long length) const override { return length; }
    long seek(long offset, int) const override { return offset; }

private:
    bool* destroyed_;
};

TEST(VolumeInterfaces, AReaderOfReadAndSeekAloneIsOpenAndKnowsNothingElse) {
    bool destroyed = false;
    std::unique_ptr<IVolumeReader> const reader = std::make_unique<SmallestReader>(&destroyed);
    EXPECT_EQ(reader->getVolumePath(), "");
    EXPECT_EQ(reader->getHandle(), -1);
    EXPECT_EQ(reader->getLastError(), 0);
    EXPECT_TRUE(reader->open());
    EXPECT_EQ(reader->size(), -1);
    EXPECT_EQ(reader->seek(7, 0), 7);
    EXPECT_EQ(reader->read(nullptr, 9), 9);
}

TEST(VolumeInterfaces, AReaderIsDestroyedThroughTheInterface) {
    bool destroyed = false;
    std::unique_ptr<IVolumeReader> reader = std::make_unique<SmallestReader>(&destroyed);
    reader.reset();
    EXPECT_TRUE(destroyed);
}

TEST(VolumeInterfaces, AReaderOwesReadAndSeekAndADeviceEverything) {
    EXPECT_TRUE(std::is_abstract_v<IVolumeReader>);
    EXPECT_TRUE(std::is_abstract_v<IVolumeDevice>);
    EXPECT_FALSE(std::is_abstract_v<SmallestReader>);
    EXPECT_TRUE((std::is_base_of_v<IVolumeReader, IVolumeDevice>));
    EXPECT_TRUE((std::is_base_of_v<IVolumeDevice, agent::core::backup::VolumeReader>));
    EXPECT_TRUE(std::has_virtual_destructor_v<IVolumeReader>);
    EXPECT_TRUE(std::has_virtual_destructor_v<IVolumeDevice>);
}

TEST(VolumeInterfaces, TheVolumeReaderIsNotCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<agent::core::backup::VolumeReader>);
    EXPECT_FALSE(std::is_copy_assignable_v<agent::core::backup::VolumeReader>);
}

} // namespace
