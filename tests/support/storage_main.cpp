// main() of the test programs that record to the storage roots.
#include "tests/support/storage_namespace.h"

#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    const int status = run_in_storage_namespace(argc, argv);
    if (status >= 0) {
        return status;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
