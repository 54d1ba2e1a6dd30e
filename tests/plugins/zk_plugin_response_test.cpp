// The registry answer record: its two text renderings and how it is freed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "zelvar/zk_plugin.h"

namespace zelvar {
namespace {

// Everything Dump writes to a descriptor, read back.
std::string DumpText(const ZKPluginResponse& response) {
  FILE* file = tmpfile();
  response.Dump(fileno(file));
  std::string text;
  char buffer[512];
  rewind(file);
  size_t got;
  while ((got = fread(buffer, 1, sizeof(buffer), file)) > 0) text.append(buffer, got);
  fclose(file);
  return text;
}

Stat SampleStat() {
  Stat stat{};
  stat.czxid = 0x100000001LL;
  stat.mzxid = -2;
  stat.ctime = 1700000000123LL;
  stat.mtime = 1700000000456LL;
  stat.version = 3;
  stat.cversion = -4;
  stat.aversion = 5;
  stat.ephemeralOwner = 0x7fffffffffffffffLL;
  stat.dataLength = 42;
  stat.numChildren = 2147483647;
  stat.pzxid = 9;
  return stat;
}

TEST(ZKPluginResponse, DumpStatNamesTheElevenFieldsInOrder) {
  EXPECT_EQ(ZKPluginResponse::DumpStat(Stat{}),
            "czxid=0;mzxid=0;ctime=0;mtime=0;version=0;cversion=0;aversion=0;ephemeralOwner=0;dataLength=0;"
            "numChildren=0;pzxid=0;");
  EXPECT_EQ(ZKPluginResponse::DumpStat(SampleStat()),
            "czxid=4294967297;mzxid=-2;ctime=1700000000123;mtime=1700000000456;version=3;cversion=-4;aversion=5;"
            "ephemeralOwner=9223372036854775807;dataLength=42;numChildren=2147483647;pzxid=9;");
}

TEST(ZKPluginResponse, TypeNamesAndUnknownTypes) {
  const char* expected[] = {"T_STRING", "T_DATA", "T_STAT", "T_STRINGS", "T_VOID", "T_KEYVALUES"};
  for (uint32_t type = 0; type < 6; ++type) EXPECT_STREQ(ZKPluginResponse::TypeName(type), expected[type]);
  EXPECT_STREQ(ZKPluginResponse::TypeName(6), "T_UNKNOWN");
  EXPECT_STREQ(ZKPluginResponse::TypeName(0xFFFFFFFFu), "T_UNKNOWN");

  ZKPluginResponse response;
  response.type = 6;
  EXPECT_EQ(DumpText(response), "retcode:0, type:T_UNKNOWN\n");
}

TEST(ZKPluginResponse, DumpWithoutPresenceBitsWritesOnlyItsFirstLine) {
  ZKPluginResponse response;
  response.type = ZKPluginResponse::T_KEYVALUES;
  response.string = "ignored";
  response.strings = {"ignored"};
  response.keyvalues.push_back(ZKKeyValue{"ignored", "ignored", Stat{}});
  EXPECT_EQ(DumpText(response), "retcode:0, type:T_KEYVALUES\n");
}

TEST(ZKPluginResponse, DumpWritesEachPresentItemInItsOrder) {
  ZKPluginResponse response;
  response.type = ZKPluginResponse::T_KEYVALUES;
  response.flags = ZKPluginResponse::kHasString | ZKPluginResponse::kHasData | ZKPluginResponse::kHasStat |
                   ZKPluginResponse::kHasStrings | ZKPluginResponse::kHasKeyValues;
  response.string = "text";
  response.stat = SampleStat();
  response.strings = {"first", "second"};
  response.keyvalues.push_back(ZKKeyValue{"m1", std::string("ab\0cd", 5), Stat{}});
  response.keyvalues.push_back(ZKKeyValue{"m2", "", SampleStat()});
  response.error_message = "not shown on success";

  std::string zero = ZKPluginResponse::DumpStat(Stat{});
  std::string sample = ZKPluginResponse::DumpStat(SampleStat());
  EXPECT_EQ(DumpText(response), "retcode:0, type:T_KEYVALUES\n"
                                "string:text\n"
                                "stat=" + sample + "\n"
                                "strings[0]:first\n"
                                "strings[1]:second\n"
                                "key=m1,value=ab,stat=" + zero + "\n"  // a value prints up to its first NUL
                                "key=m2,value=,stat=" + sample + "\n");
}

TEST(ZKPluginResponse, DumpOfAFailureShowsOnlyTheErrorMessage) {
  ZKPluginResponse response;
  response.retcode = -101;
  response.type = ZKPluginResponse::T_VOID;
  response.flags = ZKPluginResponse::kHasString | ZKPluginResponse::kHasKeyValues;
  response.string = "not shown";
  response.keyvalues.push_back(ZKKeyValue{"m1", "x", Stat{}});
  response.error_message = "no node";
  EXPECT_EQ(DumpText(response), "retcode:-101, type:T_VOID\nerror_message:no node\n");
}

TEST(ZKPluginResponse, DropRecordDeletesThroughTheVirtualDestructor) {
  static int destroyed = 0;
  struct Extended : ZKPluginResponse {
    ~Extended() override { ++destroyed; }
    std::string extra = std::string(100, 'x');  // leaks if only the base were freed
  };
  destroyed = 0;
  ZKPluginResponse::DropRecord(new Extended());
  EXPECT_EQ(destroyed, 1);
}

}  // namespace
}  // namespace zelvar
