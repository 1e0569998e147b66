#include "base/ellipsize.h"

#include <gtest/gtest.h>

namespace zephlore {
namespace {

TEST(Ellipsize, LinesShortenedOneCharacterAtATimeByTerminalColumns) {
  EXPECT_EQ(terminalColumns("e\xcc\x81"), 1);   // e + combining acute
  EXPECT_EQ(terminalColumns("ab\xff" "c"), 4);  // a bad byte shows as one mark
  EXPECT_EQ(terminalColumns("abc\r\nlonger\rx"), 6);  // the widest line

  AttributedString text{"Hello World", {{"font", "mono"}}};
  ellipsizeToFitWidth(text, 9);
  EXPECT_EQ(text.string, "Hello ...");
  EXPECT_EQ(text.attributes.at("font"), "mono");

  text.string = "fits\rmuch too long here\rok";
  ellipsizeToFitWidth(text, 8);
  EXPECT_EQ(text.string, "fits\rmuch ...\rok");

  // Wide characters are never cut in half.
  const std::string wide = "\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e";  // 3 characters, 6 columns
  text.string = wide + wide;
  ellipsizeToFitWidth(text, 7);
  EXPECT_EQ(text.string, wide.substr(0, 6) + "...");
  text.string = wide + wide;
  ellipsizeToFitWidth(text, 6);
  EXPECT_EQ(text.string, wide.substr(0, 3) + "...");
}

TEST(Ellipsize, CarriageReturnsAndOtherTerminators) {
  AttributedString text{"abcdefgh\r\rxy\r", {}};
  ellipsizeToFitWidth(text, 6);
  EXPECT_EQ(text.string, "abc...\r\rxy");  // an empty line stays; the final "\r" goes

  // "\n" stays inside its line; each line still gets a "\r" after it.
  text.string = "abcdefgh\nxy";
  ellipsizeToFitWidth(text, 6);
  EXPECT_EQ(text.string, "abc...\r" "xy");  // "abcdefgh\n" lost its tail with the "\n"
  text.string = "ab\ncdefghijkl";
  ellipsizeToFitWidth(text, 6);
  EXPECT_EQ(text.string, "ab\n\rcde...");
}

TEST(Ellipsize, NarrowTargetsAndPluggableMeasure) {
  // Below the ellipsis the line is exhausted, without a crash or endless loop.
  AttributedString text{"abcdef\rxy", {}};
  ellipsizeToFitWidth(text, 2);
  EXPECT_EQ(text.string, "\rxy");
  ellipsizeToFitWidth(text, -1);
  EXPECT_EQ(text.string, "\r");  // only the empty lines are left

  // Not wider than "...": returned whole.
  EXPECT_EQ(mutableEllipsizedStringFrom("abcdef", {}, 3).string, "abcdef");
  EXPECT_EQ(mutableEllipsizedStringFrom("abcdef", {}, 5).string, "ab...");

  // A proportional measure: every character is 2.5 units at size "big".
  TextMeasure measure = [](const std::string& s, const TextAttributes& a) {
    return static_cast<double>(s.size()) * (a.count("big") ? 2.5 : 1.0);
  };
  AttributedString big = mutableEllipsizedStringFrom("abcdefgh", {{"big", "1"}}, 15.0f, measure);
  EXPECT_EQ(big.string, "abc...");
  EXPECT_EQ(big.attributes.count("big"), 1u);
}

}  // namespace
}  // namespace zephlore
