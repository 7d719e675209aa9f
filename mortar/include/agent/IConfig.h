/// @file
/// The configuration that the host process offers.
#pragma once

#include "agent/Export.h"

#include <string>

namespace agent {

/// Values by key, implemented by the caller. Owned by the caller; asked only during the call it was handed to, from the
/// thread that makes it. What it throws leaves that call.
///
/// The only key that the libraries ask for is "ntfsparser.cache.capacity": the directories that NTFSParser keeps in its
/// path cache, 1000 where the key is missing, 0 for none.
///
/// @code
/// struct SmallCache : agent::IConfig {
///     bool get(std::string const& key, unsigned long& value) const override {
///         if (key != "ntfsparser.cache.capacity") { return false; }
///         value = 50;
///         return true;
///     }
/// };
/// @endcode
class AGENT_EXPORT IConfig {
public:
    IConfig() = default;
    IConfig(IConfig const&) = default;
    IConfig& operator=(IConfig const&) = default;
    virtual ~IConfig();

    /// Looks up an unsigned 64-bit value.
    /// @param key    the value's name, such as "ntfsparser.cache.capacity"
    /// @param value  takes the value; untouched when the key is missing, so a caller sets its default before the call
    /// @return true when the key was found
    virtual bool get(std::string const& key, unsigned long& value) const = 0;
};

} // namespace agent
