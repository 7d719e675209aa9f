// The operations of every parser, as rows for the tests of faults.
#pragma once

#include "support/FaultMatrix.h"

#include <vector>

namespace tests {

std::vector<Operation> extOperations();
std::vector<Operation> fatOperations();
std::vector<Operation> hfsOperations();
std::vector<Operation> xfsOperations();
std::vector<Operation> ntfsOperations();

/// All of them.
std::vector<Operation> everyOperation();

} // namespace tests
