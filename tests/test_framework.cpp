#include <gtest/gtest.h>

#include "fi_error.h"
#include "fi_execpipe.h"
#include "fi_trace.h"

using namespace kzfi_pdk_4_4;

TEST(MessageId, SubtractsTheBaseOnlyWhenTheCodeIsAbove)
{
    struct Case {
        int code;
        const char* expected;
    } cases[] = {{1007, "MSG_ERROR_SCSI_0007"}, {7, "MSG_ERROR_SCSI_0007"}, {1000, "MSG_ERROR_SCSI_1000"}};
    for (const Case& c : cases) {
        EXPECT_EQ(CFiError(c.code).getMessageId("scsi", 1000), c.expected) << c.code;
    }
}

TEST(ExecPipe, CapturesLinesAndStatus)
{
    CFiExecPipePosix pipe(1);
    std::vector<std::string> lines;
    EXPECT_EQ(pipe.Exec("printf 'a\\nb\\n'; echo err >&2; exit 3", lines, "", 600, "", "", ""), 3);
    EXPECT_EQ(lines, (std::vector<std::string>{"a", "b", "err"}));
}
