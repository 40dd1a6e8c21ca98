// Start-up goes on when the record pool cannot be built: calloc refuses
// every block of a record's size, as on a router out of memory.
#include <gtest/gtest.h>

#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "registry/client_node.h"
#include "tests/core/fail_calloc.h"
#include "tests/core/startup_child.h"
#include "tests/support/bus_daemon.h"

namespace
{

void refuse_records()
{
    fail_calloc_size = sizeof(client_node);
}

bool records_were_refused()
{
    return fail_calloc_count.load() > 0;
}

} // namespace

TEST(Startup, FailedRecordPoolDoesNotStopStartUp)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root for namespaces";
    if (access(lr_test::ubusd_binary(), X_OK) != 0)
        GTEST_SKIP() << "needs a bus daemon (" << lr_test::ubusd_binary() << ")";
    startup_child::run_result run = startup_child::run_with_bus(refuse_records, records_were_refused);
    const std::string &text = run.console;
    ASSERT_TRUE(WIFEXITED(run.status)) << text;
    // 0: main returned 0 after SIGTERM, and calloc did refuse the records.
    EXPECT_EQ(WEXITSTATUS(run.status), 0) << text;
    EXPECT_NE(text.find("| error | create_memory_queue | memory is not enough, malloc node fail.\n"),
              std::string::npos)
        << text;
    // The failure comes first, then the loop starts all the same.
    size_t pool = text.find("malloc node fail.");
    size_t loop = text.find("|- [lr] begin to start uloop\n");
    ASSERT_NE(loop, std::string::npos) << text;
    EXPECT_LT(pool, loop) << text;
    EXPECT_NE(text.find("LOOP-RUNNING"), std::string::npos) << text;
}
