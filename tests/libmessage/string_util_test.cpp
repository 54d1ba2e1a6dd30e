#include "zelvar/string_util.h"

#include <gtest/gtest.h>

namespace zelvar {
namespace {

std::vector<std::string> SplitOf(const std::string& text, const std::string& separator) {
  std::vector<std::string> pieces;
  Split(text, separator, &pieces);
  return pieces;
}

TEST(Split, CutsAtEverySeparatorAndNeverYieldsAnEmptyPiece) {
  using V = std::vector<std::string>;
  EXPECT_EQ(SplitOf("usb|ata|eth0", "|"), (V{"usb", "ata", "eth0"}));
  EXPECT_EQ(SplitOf("||usb|||ata|", "|"), (V{"usb", "ata"}));
  EXPECT_EQ(SplitOf("", "|"), V{});
  EXPECT_EQ(SplitOf("|||", "|"), V{});
  EXPECT_EQ(SplitOf("one", "|"), V{"one"});
  EXPECT_EQ(SplitOf("a<>b<>", "<>"), (V{"a", "b"}));
  EXPECT_EQ(SplitOf("a|b", ""), V{"a|b"});

  std::vector<std::string> appended{"kept"};
  EXPECT_EQ(Split("x y", " ", &appended), 2u);
  EXPECT_EQ(appended, (V{"kept", "x", "y"}));
}

TEST(FormatString, FormatsTextsOfAnyLength) {
  EXPECT_EQ(FormatString("%s:%d", "ip", 80), "ip:80");
  EXPECT_EQ(FormatString("%s", ""), "");
  std::string big(10000, 'x');
  EXPECT_EQ(FormatString("<%s>", big.c_str()), "<" + big + ">");
}

}  // namespace
}  // namespace zelvar
