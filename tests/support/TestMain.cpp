// main() of every test program.
#include <cstdlib>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    // The suite sees no OpenCL platform of the machine unless a test brings
    // its own: the environment's first use would otherwise load whatever ICDs
    // are installed (PoCL takes 100 ms to start and leaks on unload). Child
    // processes inherit the setting.
    setenv("OCL_ICD_VENDORS", QRV_TEST_NO_OPENCL_VENDORS, 0);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
