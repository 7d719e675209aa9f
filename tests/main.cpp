// The main function of the test programs: GoogleTest's own, and a result of its own where nothing could be tested.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

/// What build systems take for "skipped".
constexpr int kAllSkipped = 77;

} // namespace

int main(int count, char** arguments) {
    testing::InitGoogleMock(&count, arguments);
    int const result = RUN_ALL_TESTS();
    testing::UnitTest const& all = *testing::UnitTest::GetInstance();
    bool const isListing = all.test_to_run_count() == 0 || all.skipped_test_count() == 0;
    return result == 0 && !isListing && all.successful_test_count() == 0 ? kAllSkipped : result;
}
