// What the daemon assumes of the router's ABI, checked on the target itself
// (the armhf tree runs this under qemu-arm-static).
#include <gtest/gtest.h>

#include <ctime>

namespace
{

// Times are 32-bit seconds on the router (Debian's armhf keeps a 32-bit
// time_t, as the firmware's C library does), pointers 4 bytes.
TEST(TargetAbi, ArmHasA32BitTimeT)
{
#if defined(__arm__)
    EXPECT_EQ(sizeof(time_t), 4u);
    EXPECT_EQ(sizeof(void *), 4u);
    EXPECT_EQ(sizeof(long), 4u);
#else
    GTEST_SKIP() << "not a 32-bit ARM build";
#endif
}

} // namespace
