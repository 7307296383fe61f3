// Text helpers that several subsystems write output with.
#include <gtest/gtest.h>

#include <string>

#include "base/text.h"

namespace zorv {
namespace {

TEST(AppendJsonString, EscapesWhatJsonRequiresAndNothingElse) {
    std::string out = "x=";
    AppendJsonString(out, std::string("a\"b\\c\r\n\t\x01\x1f", 10));
    EXPECT_EQ(out, "x=\"a\\\"b\\\\c\\r\\n\\t\\u0001\\u001f\"");
    out.clear();
    // UTF-8 and "/" pass unchanged.
    AppendJsonString(out, "5 \xC2\xB5m / 3\xC2\xB0");
    EXPECT_EQ(out, "\"5 \xC2\xB5m / 3\xC2\xB0\"");
    out.clear();
    AppendJsonString(out, "");
    EXPECT_EQ(out, "\"\"");
}

}  // namespace
}  // namespace zorv
