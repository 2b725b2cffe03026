// Shared main of every test binary. It installs a listener that fails any test which ends with more
// live kt::MemoryManager records than it started with, so that a leaked XML node or an owned
// callback that was never released shows up in the test that leaked it.
#include <gtest/gtest.h>

#include <cstddef>

#ifndef CONVOKE_TEST_WITHOUT_PRODUCT
#include "kt/MemoryManager.h"

namespace {

class MemoryLeakListener : public ::testing::EmptyTestEventListener {
 public:
  void OnTestStart(const ::testing::TestInfo& /*info*/) override {
    live_at_start_ = kt::MemoryManager::Instance()->Count();
  }

  void OnTestEnd(const ::testing::TestInfo& /*info*/) override {
    kt::MemoryManager* manager = kt::MemoryManager::Instance();
    const std::size_t live = manager->Count();
    if (live > live_at_start_) {
      ADD_FAILURE() << "the test leaves " << (live - live_at_start_)
                    << " memory manager record(s) outstanding (" << live_at_start_
                    << " at its start)\n"
                    << manager->Summary() << manager->LeakReport();
    }
  }

 private:
  std::size_t live_at_start_ = 0;
};

}  // namespace
#endif  // CONVOKE_TEST_WITHOUT_PRODUCT

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // GoogleTest calls OnTestEnd in reverse order of appending, so this check runs before the result
  // printer and a leaking test is reported as FAILED.
#ifndef CONVOKE_TEST_WITHOUT_PRODUCT
  ::testing::UnitTest::GetInstance()->listeners().Append(new MemoryLeakListener);
#endif
  return RUN_ALL_TESTS();
}
