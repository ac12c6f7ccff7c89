// KELMATRIX native threads from the environment
// Run by CTest with KELMATRIX_NUM_THREADS set and the count it must give in
// KELMATRIX_TEST_WANT_THREADS; nothing sets the count before, so the first read decides it.
#include <gtest/gtest.h>

#include <cstdlib>

#include "kelmatrix/threads.h"

TEST(ThreadsEnvironment, TheFirstReadTakesTheVariableAndALaterSetOverridesIt)
{
    const char* want = std::getenv("KELMATRIX_TEST_WANT_THREADS");
    ASSERT_NE(want, nullptr) << "run through CTest, which sets the variables";
    EXPECT_EQ(kelmatrix_native_threads(), std::atoi(want))
        << "KELMATRIX_NUM_THREADS=" << std::getenv("KELMATRIX_NUM_THREADS");
    EXPECT_EQ(kelmatrix_set_native_threads(2), KEL_THREADS_OK);
    EXPECT_EQ(kelmatrix_native_threads(), 2);
}
