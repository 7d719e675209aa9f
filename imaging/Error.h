// What goes wrong with a volume, in one sentence.
#pragma once

#include <stdexcept>
#include <string>

namespace imaging {

/// What kind of trouble a volume is in; a command turns it into its exit code.
enum class Trouble {
    Io,            ///< a system call or the library failed
    Unending,      ///< more was read than any healthy volume takes: its structures contradict themselves
    NotUnderstood, ///< the volume is not there, or nothing in it is understood
};

/// A volume that cannot be answered for. what() is one sentence that begins with the path.
class VolumeError : public std::runtime_error {
public:
    VolumeError(Trouble trouble, std::string const& sentence) : std::runtime_error(sentence), trouble_(trouble) {}

    Trouble trouble() const noexcept { return trouble_; }

private:
    Trouble trouble_;
};

} // namespace imaging
