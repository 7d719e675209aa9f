// The home of the configuration interface's virtual table.
#include "agent/IConfig.h"

namespace agent {

IConfig::~IConfig() = default;

} // namespace agent
