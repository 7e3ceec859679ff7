#include "sync/support/repr.h"

#include "sync/support/json_text.h"

#include <gtest/gtest.h>

namespace quillmarsh::sync {
namespace {

TEST(Quoted, EscapesStringsAndPrintsAbsentListsAndJsonValues) {
  EXPECT_EQ(quoted(std::string("a'b\\c\n\r\t", 8)), "'a\\'b\\\\c\\n\\r\\t'");
  EXPECT_EQ(quoted(std::string("nul\0x\x1f\x7f", 7)), "'nul\\x00x\\x1f\\x7f'");
  EXPECT_EQ(quoted("caf\xc3\xa9"), "'caf\xc3\xa9'");  // printable text beyond ASCII stays
  EXPECT_EQ(quoted(std::optional<std::string>()), "None");
  EXPECT_EQ(quoted(std::vector<std::string>{"a", "b'c"}), "['a', 'b\\'c']");
  EXPECT_EQ(quoted(std::vector<std::string>{}), "[]");
  EXPECT_EQ(quoted_json(Json::parse(R"({"k": [1, 2.5, "x", null, true]})")), "{'k': [1, 2.5, 'x', None, True]}");
}

}  // namespace
}  // namespace quillmarsh::sync
