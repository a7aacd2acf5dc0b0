#include "kernel/ltype.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "kernel/ptype.h"
#include "kernel/s128.h"
#include "utils/context.h"
#include "utils/kest_error.h"
#include "utils/mem.h"

namespace {

class TypesEnv : public ::testing::Environment {
 public:
  void SetUp() override { types_init(); }
};
const auto* const kEnv = ::testing::AddGlobalTestEnvironment(new TypesEnv);

uint32_t word(uint32_t id, uint32_t p8 = 0, uint32_t p16 = 0) { return id | p8 << 8 | p16 << 16; }

std::string type_text(uint32_t type) {
  char buffer[64];
  int n = ltype_to_string(buffer, type);
  EXPECT_EQ(n, static_cast<int>(std::strlen(buffer)));
  return buffer;
}

template <typename T>
std::string print(uint32_t type, T value, size_t size = 1024) {
  char buffer[1024];
  int n = value_to_string(buffer, size, ltype_physical(type), type, &value);
  EXPECT_EQ(n, static_cast<int>(std::strlen(buffer)));
  return buffer;
}

template <typename T>
std::string print_as(const char* physical, uint32_t type, T value) {
  char buffer[1024];
  int n = value_to_string(buffer, sizeof buffer, ptype_lookup(physical), type, &value);
  EXPECT_EQ(n, static_cast<int>(std::strlen(buffer)));
  return buffer;
}

TEST(LtypeParse, NamesAndParameters) {
  struct Case {
    const char* text;
    uint32_t expected;
  } cases[] = {
      {"decimal", word(LTYPE_DECIMAL, 10, 0)},
      {"decimal(12,2)", word(LTYPE_DECIMAL, 12, 2)},
      {"decimal(12, 2)", word(LTYPE_DECIMAL, 12, 2)},
      {"decimal(5,5)", word(LTYPE_DECIMAL, 5, 5)},
      {"int", LTYPE_SINT},
      {"integer(1)", LTYPE_SCHR},
      {"integer(2)", LTYPE_SSHT},
      {"int(8)", LTYPE_SLNG},
      {"int(16)", LTYPE_S128},
      {"float", LTYPE_FLT8},
      {"float(4)", LTYPE_FLT4},
      {"timestamp(9)", word(LTYPE_TIMESTAMP, 0, 6)},
      {"timestamp(3)", word(LTYPE_TIMESTAMP, 0, 3)},
      {"time(9)", word(LTYPE_TIME, 0, 9)},
      {"intervalds(9)", word(LTYPE_INTERVALDS, 0, 9)},
      {"intervalds", LTYPE_INTERVALDS},
      {"intervalym", LTYPE_INTERVALYM},
      {"varchar(0)", LTYPE_VCHAR},
      {"str", LTYPE_VCHAR},
      {"varchar(300)", word(LTYPE_VCHAR, 300)},
      {"char", word(LTYPE_CHAR, 1)},
      {"char(70000)", word(LTYPE_CHAR, 70000)},
      {"money", word(LTYPE_MONEY, 0, 2)},
      {"uidx", LTYPE_UIDX},
      {"bool", LTYPE_BOOL},
      {"date", LTYPE_DATE},
      {"uchr", LTYPE_UCHR},
      {"ulng", LTYPE_ULNG},
      {"s128", LTYPE_S128},
      {"dbl", LTYPE_FLT8},
      {"flt", LTYPE_FLT4},
      {"DATE", LTYPE_DATE},
      // Capitals stop the parameter scan, not the name match.
      {"Decimal(12,2)", word(LTYPE_DECIMAL, 10, 0)},
      {"VARCHAR(5)", LTYPE_VCHAR},
      {"TimeStamp(3)", LTYPE_TIMESTAMP},
  };
  for (const auto& c : cases) EXPECT_EQ(ltype_parse(c.text), c.expected) << c.text;
}

TEST(LtypeParse, RefusedNamesAreLoggedAndZero) {
  struct Case {
    const char* text;
    const char* log;
  } cases[] = {
      {"integer(3)", "unknown type <integer(3)(3,0)>"},
      {"float(2)", "unknown type <float(2)(2,0)>"},
      {"decimal (5,2)", "unknown type <decimal (5,2)(0,0)>"},
      {"intx", "unknown type <intx(0,0)>"},
      {"", "unknown type <(0,0)>"},
      {"timestampz", "unknown type <timestampz(0,0)>"},
  };
  for (const auto& c : cases) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(ltype_parse(c.text), 0u) << c.text;
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_THAT(log, testing::HasSubstr(c.log));
    EXPECT_THAT(log, testing::HasSubstr("LTYPE"));
  }
}

TEST(LtypeParse, PrefixOfAnotherNameIsNotTakenForIt) {
  EXPECT_EQ(ltype_id(ltype_parse("intervalds(3)")), LTYPE_INTERVALDS);
  EXPECT_EQ(ltype_id(ltype_parse("timestamp")), LTYPE_TIMESTAMP);
  EXPECT_EQ(ltype_id(ltype_parse("time")), LTYPE_TIME);
  EXPECT_EQ(ltype_from_name("int(8)", 8, 0), LTYPE_SLNG);
}

TEST(LtypeText, EveryTypeTextParsesBackToItsWord) {
  const uint32_t words[] = {LTYPE_BOOL,
                            LTYPE_SCHR,
                            LTYPE_UCHR,
                            LTYPE_SSHT,
                            LTYPE_USHT,
                            LTYPE_SINT,
                            LTYPE_UINT,
                            LTYPE_SLNG,
                            LTYPE_ULNG,
                            LTYPE_S128,
                            LTYPE_UIDX,
                            word(LTYPE_DECIMAL, 18, 4),
                            LTYPE_FLT4,
                            LTYPE_FLT8,
                            word(LTYPE_MONEY, 0, 2),
                            word(LTYPE_CHAR, 7),
                            LTYPE_VCHAR,
                            word(LTYPE_VCHAR, 40),
                            LTYPE_DATE,
                            LTYPE_TIME,
                            word(LTYPE_TIME, 0, 3),
                            word(LTYPE_TIMESTAMP, 0, 6),
                            word(LTYPE_INTERVALDS, 0, 2),
                            LTYPE_INTERVALYM};
  for (uint32_t w : words) EXPECT_EQ(ltype_parse(type_text(w).c_str()), w) << type_text(w);
}

TEST(LtypeText, Spellings) {
  EXPECT_EQ(type_text(word(LTYPE_DECIMAL, 12, 2)), "decimal(12,2)");
  EXPECT_EQ(type_text(word(LTYPE_CHAR, 1)), "char(1)");
  EXPECT_EQ(type_text(word(LTYPE_VCHAR, 5)), "varchar(5)");
  EXPECT_EQ(type_text(LTYPE_VCHAR), "str");
  EXPECT_EQ(type_text(word(LTYPE_TIME, 0, 3)), "time(3)");
  EXPECT_EQ(type_text(LTYPE_TIMESTAMP), "timestamp");
  EXPECT_EQ(type_text(word(LTYPE_MONEY, 0, 2)), "money");
  EXPECT_EQ(type_text(0), "UNKNOWNTYPE");
  EXPECT_EQ(type_text(23), "UNKNOWNTYPE");
  EXPECT_STREQ(ltype_name(word(LTYPE_DECIMAL, 5, 2)), "decimal");
  EXPECT_STREQ(ltype_name(0x117), "UNKNOWNTYPE");  // only the low byte counts
}

TEST(LtypeText, FormatReturnsConstantsForBareNamesAndCopiesOthers) {
  MemContext* ctx = mem_context_create(nullptr, "ltype test");
  EXPECT_EQ(ltype_format(ctx, LTYPE_SINT, 0), ltype_name(LTYPE_SINT));
  const char* str = ltype_format(ctx, LTYPE_VCHAR, 0);
  EXPECT_STREQ(str, "str");
  EXPECT_EQ(str, ltype_format(ctx, LTYPE_VCHAR, 0));
  EXPECT_STREQ(ltype_format(ctx, word(LTYPE_DECIMAL, 9, 3), 0), "decimal(9,3)");
  EXPECT_STREQ(ltype_format(ctx, word(LTYPE_INTERVALDS, 0, 4), 0), "intervalds(4)");
  mem_context_destroy(ctx);
}

TEST(LtypeTable, DisplayWidthsAndDigits) {
  struct Case {
    uint32_t type;
    int width;
    int digits;
  } cases[] = {
      {LTYPE_BOOL, 5, 1},
      {LTYPE_SCHR, 4, 3},
      {LTYPE_UCHR, 3, 3},
      {LTYPE_SSHT, 6, 5},
      {LTYPE_USHT, 5, 5},
      {LTYPE_SINT, 11, 10},
      {LTYPE_UINT, 10, 10},
      {LTYPE_SLNG, 20, 19},
      {LTYPE_ULNG, 19, 19},
      {LTYPE_S128, 40, 39},
      {LTYPE_UIDX, 19, 19},
      {word(LTYPE_DECIMAL, 10, 0), 11, 10},
      {word(LTYPE_DECIMAL, 12, 2), 14, 12},
      {word(LTYPE_DECIMAL, 5, 5), 8, 5},
      {LTYPE_FLT4, 14, 7},
      {LTYPE_FLT8, 23, 16},
      {word(LTYPE_MONEY, 0, 2), 17, 16},
      {word(LTYPE_CHAR, 9), 9, 0},
      {word(LTYPE_VCHAR, 33), 33, 0},
      {LTYPE_VCHAR, 0, 0},
      {LTYPE_DATE, 10, 0},
      {LTYPE_TIME, 8, 0},
      {word(LTYPE_TIME, 0, 3), 12, 0},
      {word(LTYPE_TIMESTAMP, 0, 6), 26, 0},
      {LTYPE_TIMESTAMP, 19, 0},
      {word(LTYPE_INTERVALDS, 0, 1), 19, 0},
      {LTYPE_INTERVALYM, 8, 0},
      {0, 0, 0},
      {200, 0, 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ltype_display_width(c.type), c.width) << type_text(c.type);
    EXPECT_EQ(ltype_digits(c.type), c.digits) << type_text(c.type);
  }
}

TEST(LtypeTable, ParamsAndScaled) {
  int p1, p2;
  ltype_params(word(LTYPE_DECIMAL, 12, 3), &p1, &p2);
  EXPECT_EQ(p1 * 100 + p2, 1203);
  ltype_params(word(LTYPE_VCHAR, 300), &p1, &p2);
  EXPECT_EQ(p1 * 100 + p2, 30000);
  ltype_params(word(LTYPE_TIMESTAMP, 0, 4), &p1, &p2);
  EXPECT_EQ(p1 * 100 + p2, 400);
  ltype_params(word(LTYPE_MONEY, 0, 2), &p1, &p2);
  EXPECT_EQ(p1 * 100 + p2, 0);
  for (uint32_t id = 0; id < 30; ++id)
    EXPECT_EQ(ltype_is_scaled(id), id == LTYPE_DECIMAL || (id >= 18 && id <= 22)) << id;
}

TEST(PhysicalRegistry, BuiltInTypes) {
  struct Case {
    const char* name;
    int width;
    int is_integer;
    int fixed;
    int by_reference;
  } cases[] = {
      {"schr", 1, 1, 1, 0},  {"uchr", 1, 1, 1, 0}, {"ssht", 2, 1, 1, 0}, {"usht", 2, 1, 1, 0},
      {"sint", 4, 1, 1, 0},  {"uint", 4, 1, 1, 0}, {"slng", 8, 1, 1, 0}, {"ulng", 8, 1, 1, 0},
      {"s128", 16, 1, 1, 0}, {"uidx", 8, 1, 1, 0}, {"flt", 4, 0, 1, 0},  {"dbl", 8, 0, 1, 0},
      {"str", 8, 0, 0, 1},   {"ptr", 8, 0, 1, 0},
  };
  for (const auto& c : cases) {
    const PhysicalType* p = ptype_lookup(c.name);
    ASSERT_NE(p, nullptr) << c.name;
    EXPECT_EQ(ptype_get(p->index), p);
    EXPECT_EQ(ptype_index(c.name), static_cast<int>(p->index));
    EXPECT_EQ(ptype_width(p), c.width) << c.name;
    EXPECT_EQ(p->is_integer, c.is_integer) << c.name;
    EXPECT_EQ(p->fixed_size, c.fixed) << c.name;
    EXPECT_EQ(p->by_reference, c.by_reference) << c.name;
  }
  EXPECT_EQ(ptype_lookup("SINT"), nullptr);
  EXPECT_EQ(ptype_index("sin"), -1);
  EXPECT_EQ(ptype_get(ptype_count()), nullptr);
  EXPECT_EQ(ptype_lookup("sint")->min, -2147483648.0);
  EXPECT_EQ(ptype_lookup("ssht")->max, 32767.0);
  EXPECT_EQ(ptype_lookup("flt")->max, 3.4028234663852886e38);
  EXPECT_EQ(ptype_lookup("dbl")->min, -1.7976931348623157e308);
}

TEST(PhysicalRegistry, NewDescriptorAndWidthClasses) {
  PhysicalType d = ptype_new("thing");
  EXPECT_STREQ(d.name, "thing");
  EXPECT_EQ(d.width_class, -1);
  EXPECT_EQ(d.is_integer, -1);
  EXPECT_EQ(d.fixed_size, -1);
  EXPECT_EQ(d.by_reference, 0);
  EXPECT_EQ(d.min, 0.0);
  const int widths[] = {0, 1, 1, 2, 4, 8, 16, 0};
  for (int cls = 0; cls < 8; ++cls) {
    d.width_class = cls;
    EXPECT_EQ(ptype_width(&d), widths[cls]) << cls;
  }
}

TEST(PhysicalRegistry, LogicalToPhysical) {
  struct Case {
    uint32_t type;
    const char* physical;
  } cases[] = {
      {LTYPE_BOOL, "uchr"},
      {LTYPE_UCHR, "uchr"},
      {LTYPE_SCHR, "schr"},
      {LTYPE_UIDX, "uidx"},
      {LTYPE_S128, "s128"},
      {LTYPE_FLT4, "flt"},
      {LTYPE_FLT8, "dbl"},
      {word(LTYPE_MONEY, 0, 2), "dbl"},
      {word(LTYPE_DECIMAL, 2, 0), "schr"},
      {word(LTYPE_DECIMAL, 3, 0), "ssht"},
      {word(LTYPE_DECIMAL, 4, 0), "ssht"},
      {word(LTYPE_DECIMAL, 9, 0), "sint"},
      {word(LTYPE_DECIMAL, 18, 0), "slng"},
      {word(LTYPE_DECIMAL, 19, 0), "s128"},
      {LTYPE_DATE, "sint"},
      {word(LTYPE_TIME, 0, 4), "sint"},
      {word(LTYPE_TIME, 0, 5), "slng"},
      {LTYPE_TIMESTAMP, "slng"},
      {LTYPE_INTERVALDS, "slng"},
      {LTYPE_INTERVALYM, "sint"},
      {word(LTYPE_CHAR, 1), "sint"},
      {word(LTYPE_CHAR, 2), "str"},
      {LTYPE_VCHAR, "str"},
  };
  for (const auto& c : cases) {
    const PhysicalType* p = ltype_physical(c.type);
    ASSERT_NE(p, nullptr) << type_text(c.type);
    EXPECT_STREQ(p->name, c.physical) << type_text(c.type);
  }
  EXPECT_EQ(ltype_physical(0), nullptr);
  EXPECT_EQ(ltype_physical(23), nullptr);
}

TEST(LtypeLimits, MinAndMax) {
  const double big = 1.7976931348623157e308;
  EXPECT_EQ(ltype_min(LTYPE_SLNG), -big);
  EXPECT_EQ(ltype_max(LTYPE_S128), big);
  EXPECT_EQ(ltype_max(word(LTYPE_DECIMAL, 5, 2)), 1e5);
  EXPECT_EQ(ltype_min(word(LTYPE_DECIMAL, 5, 2)), -1e5);
  EXPECT_EQ(ltype_min(word(LTYPE_MONEY, 0, 2)), -1e14);
  EXPECT_EQ(ltype_max(LTYPE_DATE), 3652424.0);
  EXPECT_EQ(ltype_min(LTYPE_TIME), 0.0);
  EXPECT_EQ(ltype_max(word(LTYPE_TIME, 0, 3)), 86400e3);
  EXPECT_EQ(ltype_max(word(LTYPE_TIME, 0, 12)), 86400e9);
  EXPECT_EQ(ltype_max(word(LTYPE_TIMESTAMP, 0, 6)), 3652425.0 * 86400e6);
  EXPECT_EQ(ltype_min(LTYPE_SINT), -2147483648.0);
  EXPECT_EQ(ltype_max(LTYPE_INTERVALYM), 2147483647.0);
  EXPECT_EQ(ltype_max(LTYPE_BOOL), 255.0);
  EXPECT_EQ(ltype_min(LTYPE_FLT4), -3.4028234663852886e38);
  EXPECT_EQ(ltype_max(0), big);
}

TEST(LtypeCommon, Pairs) {
  struct Case {
    uint32_t a, b, expected;
  } cases[] = {
      {LTYPE_SINT, LTYPE_SINT, LTYPE_SINT},
      {LTYPE_SINT, LTYPE_SLNG, LTYPE_SLNG},
      {LTYPE_FLT8, LTYPE_SCHR, LTYPE_FLT8},
      {word(LTYPE_DECIMAL, 10, 2), word(LTYPE_DECIMAL, 8, 4), word(LTYPE_DECIMAL, 12, 4)},
      {word(LTYPE_DECIMAL, 5, 0), LTYPE_SINT, word(LTYPE_DECIMAL, 5, 0)},
      {word(LTYPE_DECIMAL, 250, 0), word(LTYPE_DECIMAL, 10, 9), word(LTYPE_DECIMAL, 255, 9)},
      {word(LTYPE_CHAR, 3), word(LTYPE_VCHAR, 10), word(LTYPE_VCHAR, 10)},
      {word(LTYPE_CHAR, 3), word(LTYPE_CHAR, 8), word(LTYPE_CHAR, 8)},
      {word(LTYPE_VCHAR, 3), LTYPE_VCHAR, LTYPE_VCHAR},
      {LTYPE_DATE, LTYPE_TIMESTAMP, 0},
      {LTYPE_SINT, LTYPE_VCHAR, 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ltype_common(c.a, c.b), c.expected) << type_text(c.a) << " " << type_text(c.b);
    EXPECT_EQ(ltype_common(c.b, c.a), c.expected) << type_text(c.b) << " " << type_text(c.a);
  }
}

TEST(ValueToString, EdgeValuesOfEachType) {
  EXPECT_EQ(print<uint8_t>(LTYPE_BOOL, 2), "true");
  EXPECT_EQ(print<uint8_t>(LTYPE_BOOL, 0), "false");
  EXPECT_EQ(print<uint8_t>(LTYPE_UCHR, 0xFF), "255");
  EXPECT_EQ(print<uint8_t>(LTYPE_SCHR, 0xFF), "-1");
  EXPECT_EQ(print<uint16_t>(LTYPE_SSHT, 0x8000), "-32768");
  EXPECT_EQ(print<uint16_t>(LTYPE_USHT, 0xFFFF), "65535");
  EXPECT_EQ(print<uint32_t>(LTYPE_SINT, 0x80000000u), "-2147483648");
  EXPECT_EQ(print<uint32_t>(LTYPE_UINT, 0xFFFFFFFFu), "4294967295");
  EXPECT_EQ(print<int64_t>(LTYPE_SLNG, INT64_MIN), "-9223372036854775808");
  EXPECT_EQ(print<uint64_t>(LTYPE_ULNG, UINT64_MAX), "18446744073709551615");
  EXPECT_EQ(print<uint64_t>(LTYPE_UIDX, UINT64_MAX), "18446744073709551615");
  EXPECT_EQ(print<double>(word(LTYPE_MONEY, 0, 2), 12345.0), "$ 123.45");
  EXPECT_EQ(print<double>(word(LTYPE_MONEY, 0, 2), 5.0), "$ 0.05");
  EXPECT_EQ(print<double>(word(LTYPE_MONEY, 0, 2), -1999.0), "$ -19.99");
  EXPECT_EQ(print<float>(LTYPE_FLT4, 0.1f), "0.1");
  EXPECT_EQ(print<double>(LTYPE_FLT8, 0.1), "0.1");
  EXPECT_EQ(print<int32_t>(word(LTYPE_DECIMAL, 9, 2), -5), "-0.05");
  EXPECT_EQ(print<int16_t>(word(LTYPE_DECIMAL, 4, 4), 7), "0.0007");
  EXPECT_EQ(print<int32_t>(LTYPE_DATE, 719528), "1970-01-01");
  EXPECT_EQ(print<int32_t>(word(LTYPE_TIME, 0, 3), 45296789), "12:34:56.789");
  EXPECT_EQ(print<int64_t>(word(LTYPE_TIMESTAMP, 0, 0), 719528LL * 86400 + 3661),
            "1970-01-01 01:01:01");
  EXPECT_EQ(print<int64_t>(LTYPE_INTERVALDS, -90061), "-1 01:01:01");
  EXPECT_EQ(print<int32_t>(LTYPE_INTERVALYM, -14), "-1-02");
  EXPECT_EQ(print<int32_t>(word(LTYPE_CHAR, 1), 0x20AC), "\xE2\x82\xAC");
  EXPECT_EQ(print<const char*>(word(LTYPE_VCHAR, 5), "hello"), "hello");
  EXPECT_EQ(print<const char*>(LTYPE_VCHAR, ""), "");
}

TEST(ValueToString, SixteenByteValues) {
  s128 v;
  s128_from_string_ptr("-170141183460469231731687303715884105728", &v);
  EXPECT_EQ(print<s128>(LTYPE_S128, v), "-170141183460469231731687303715884105728");
  s128_from_string_ptr("12345678901234567890123", &v);
  EXPECT_EQ(print<s128>(word(LTYPE_DECIMAL, 30, 5), v), "123456789012345678.90123");
  s128_fromint_ptr(&v, -5);
  EXPECT_EQ(print<s128>(word(LTYPE_DECIMAL, 20, 3), v), "-0.005");
}

TEST(ValueToString, PhysicalTypeDecidesBeforeLogical) {
  // Money reads a double whatever the column's physical type says.
  EXPECT_EQ(print_as<double>("slng", word(LTYPE_MONEY, 0, 2), 250.0), "$ 2.50");
  // A decimal held in a double.
  EXPECT_EQ(print_as<double>("dbl", word(LTYPE_DECIMAL, 10, 2), 12345.0), "123.45");
  EXPECT_EQ(print_as<double>("dbl", word(LTYPE_DECIMAL, 10, 2), -12345.9), "-123.45");
  // A double column may carry "flt" and is printed with seven digits.
  EXPECT_EQ(print_as<float>("flt", LTYPE_FLT8, 1.0f / 3), "0.3333333");
  // An integer column with a type that has no integer form.
  EXPECT_EQ(print_as<int32_t>("sint", word(LTYPE_VCHAR, 4), 7), "UNKNOWNTYPE");
  EXPECT_EQ(print_as<int32_t>("sint", 0, 7), "UNKNOWNTYPE");
  // A decimal of eight bytes stored in a sixteen-byte column reads the low word.
  EXPECT_EQ(print_as<s128>("s128", LTYPE_SLNG, s128{42, 0}), "42");
}

TEST(ValueToString, WidthClassOneReadsNothing) {
  PhysicalType bit = ptype_new("bit");
  bit.width_class = 1;
  char buffer[32];
  uint8_t v = 1;
  EXPECT_EQ(value_to_string(buffer, sizeof buffer, &bit, LTYPE_BOOL, &v), 5);
  EXPECT_STREQ(buffer, "false");
}

TEST(ValueToString, TooSmallBufferAnswersMinusOne) {
  char buffer[8];
  int64_t big = -1234567890123;
  EXPECT_EQ(value_to_string(buffer, sizeof buffer, ltype_physical(LTYPE_SLNG), LTYPE_SLNG, &big),
            -1);
  EXPECT_STREQ(buffer, "-123456");
  int64_t dec = 123456789;
  uint32_t type = word(LTYPE_DECIMAL, 18, 2);
  EXPECT_EQ(value_to_string(buffer, sizeof buffer, ltype_physical(type), type, &dec), -1);
  EXPECT_STREQ(buffer, "1234567");
  s128 wide{123456789, 0};
  type = word(LTYPE_DECIMAL, 20, 2);
  EXPECT_EQ(value_to_string(buffer, sizeof buffer, ltype_physical(type), type, &wide), -1);
  EXPECT_EQ(std::strlen(buffer), 7u);
  char exact[11];
  EXPECT_EQ(value_to_string(exact, sizeof exact, ltype_physical(type), type, &wide), 10);
  EXPECT_STREQ(exact, "1234567.89");
  int32_t day = 719528;
  EXPECT_EQ(value_to_string(buffer, sizeof buffer, ltype_physical(LTYPE_DATE), LTYPE_DATE, &day),
            -1);
}

// The conversion chosen once per column gives value_to_string's text and result for every
// physical type and every logical type it may carry, over random values and buffer sizes down to
// a cut (a mismatch in one direct conversion shows here).
TEST(ValueTextFn, SameTextAsValueToStringForEveryPair) {
  const uint32_t logical[] = {LTYPE_BOOL,
                              LTYPE_SCHR,
                              LTYPE_SSHT,
                              LTYPE_SINT,
                              LTYPE_SLNG,
                              LTYPE_S128,
                              LTYPE_UCHR,
                              LTYPE_UINT,
                              LTYPE_ULNG,
                              word(LTYPE_DECIMAL, 9, 2),
                              word(LTYPE_DECIMAL, 18, 0),
                              word(LTYPE_DECIMAL, 18, 5),
                              word(LTYPE_DECIMAL, 30, 3),
                              LTYPE_FLT4,
                              LTYPE_FLT8,
                              word(LTYPE_MONEY, 0, 2),
                              word(LTYPE_CHAR, 1),
                              word(LTYPE_CHAR, 4),
                              LTYPE_VCHAR,
                              LTYPE_DATE,
                              word(LTYPE_TIME, 0, 3),
                              LTYPE_TIMESTAMP,
                              LTYPE_INTERVALDS,
                              LTYPE_INTERVALYM};
  const char* const texts[] = {"", "abc", "h\xC3\xA9llo w\xC3\xB6rld, a longer text"};
  std::mt19937_64 rng(20240229);
  for (uint32_t k = 0; k < ptype_count(); ++k) {
    const PhysicalType* physical = ptype_get(k);
    const std::string name = physical->name;
    for (uint32_t type : logical) {
      const uint32_t id = type & 0xFF;
      const bool text = id == LTYPE_CHAR || id == LTYPE_VCHAR;
      const bool real = id == LTYPE_FLT4 || id == LTYPE_FLT8;
      if (id != LTYPE_MONEY && ((name == "dbl" && id != LTYPE_FLT8 && id != LTYPE_DECIMAL) ||
                                (name == "flt" && !real) || (name == "str" && !text))) {
        continue;  // pairs value_to_string refuses
      }
      if (name == "ptr") continue;
      const ValueTextFn fn = value_text_fn(physical, type);
      for (int i = 0; i < 200; ++i) {
        unsigned char value[16];
        for (unsigned char& b : value) b = static_cast<unsigned char>(rng());
        if (i % 4 == 0) std::memset(value + 4, value[3] & 0x80 ? 0xFF : 0, 12);  // small values
        if (id == LTYPE_DATE && i % 2) {  // days of the common years
          const int32_t day = 700000 + static_cast<int32_t>(rng() % 100000);
          std::memcpy(value, &day, sizeof day);
          std::memset(value + 4, 0, 12);
        }
        if (name == "str") {
          const char* t = texts[i % 3];
          std::memcpy(value, &t, sizeof t);
        }
        for (size_t size : {size_t{128}, size_t{6}}) {
          char want[128], got[128];
          std::memset(want, 'x', sizeof want);
          std::memset(got, 'x', sizeof got);
          const int w = value_to_string(want, size, physical, type, value);
          const int g = fn(got, size, physical, type, value);
          ASSERT_EQ(g, w) << name << " " << type_text(type) << " size " << size;
          ASSERT_EQ(std::memcmp(got, want, sizeof want), 0)
              << name << " " << type_text(type) << ": " << want << " vs " << got;
        }
      }
    }
  }
}

TEST(ValueToString, CodePointsOfEveryLength) {
  struct Case {
    uint32_t c;
    const char* bytes;
  } cases[] = {
      {0x41, "A"},
      {0x7FF, "\xDF\xBF"},
      {0x800, "\xE0\xA0\x80"},
      {0x20AC, "\xE2\x82\xAC"},
      {0x10000, "\xF0\x90\x80\x80"},
      {0x1FFFFF, "\xF7\xBF\xBF\xBF"},
      {0x200000, "\xF8\x88\x80\x80\x80"},
      {0x4000000, "\xFC\x84\x80\x80\x80\x80"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(print<uint32_t>(word(LTYPE_CHAR, 1), c.c), c.bytes) << std::hex << c.c;
  char buffer[3] = {'x', 'x', 'x'};
  int32_t euro = 0x20AC;
  const uint32_t type = word(LTYPE_CHAR, 1);
  EXPECT_EQ(value_to_string(buffer, 3, ltype_physical(type), type, &euro), 3);
  EXPECT_EQ(buffer[0], 0);
  EXPECT_EQ(value_to_string(buffer, 0, ltype_physical(type), type, &euro), 3);
}

TEST(ValueToString, IntegersMatchPrintfOverRandomSample) {
  std::mt19937_64 rng(testing::UnitTest::GetInstance()->random_seed());
  std::printf("seed %d\n", testing::UnitTest::GetInstance()->random_seed());
  for (int i = 0; i < 20000; ++i) {
    uint64_t bits = rng() >> (rng() % 64);
    char expected[64];
    std::snprintf(expected, sizeof expected, "%" PRId64, static_cast<int64_t>(bits));
    EXPECT_EQ(print<uint64_t>(LTYPE_SLNG, bits), expected);
    std::snprintf(expected, sizeof expected, "%" PRIu64, bits);
    EXPECT_EQ(print<uint64_t>(LTYPE_ULNG, bits), expected);
    std::snprintf(expected, sizeof expected, "%" PRId64,
                  static_cast<int64_t>(static_cast<int16_t>(bits)));
    EXPECT_EQ(print<uint16_t>(LTYPE_SSHT, static_cast<uint16_t>(bits)), expected);
  }
}

TEST(ValueToStringDeathTest, MismatchedPhysicalTypeAsserts) {
  double d = 1.0;
  float f = 1.0f;
  const char* s = "x";
  EXPECT_DEATH(value_to_string(nullptr, 0, ptype_lookup("dbl"), LTYPE_FLT4, &d),
               "assertion \"tid == LTYPE_FLT8\" failed");
  EXPECT_DEATH(value_to_string(nullptr, 0, ptype_lookup("flt"), LTYPE_SINT, &f),
               "assertion \"tid == LTYPE_FLT4 \\|\\| tid == LTYPE_FLT8\" failed");
  EXPECT_DEATH(value_to_string(nullptr, 0, ptype_lookup("str"), LTYPE_DATE, &s),
               "assertion \"tid == LTYPE_CHAR \\|\\| tid == LTYPE_VCHAR\" failed");
}

// Text to value and back.
class ValueFromString : public ::testing::Test {
 protected:
  void SetUp() override { context = query_context_create(nullptr); }
  void TearDown() override { query_context_destroy(context); }
  QueryContext* context = nullptr;

  std::string normalise(uint32_t type, const char* text) {
    char* out = value_normalise(context, type, text);
    return out ? out : "<null>";
  }
  int32_t last_code() {
    KestError* e = context->errors;
    while (e && e->next) e = e->next;
    return e ? e->code : -1;
  }
  std::string param(int i) {
    KestError* e = context->errors;
    while (e && e->next) e = e->next;
    return e && i < e->num_err_params && e->params[i] ? e->params[i] : "<none>";
  }
};

TEST_F(ValueFromString, NormalisedTexts) {
  struct Case {
    uint32_t type;
    const char* text;
    const char* expected;
  } cases[] = {
      {LTYPE_BOOL, "TRUE", "true"},
      {LTYPE_BOOL, "false", "false"},
      {LTYPE_SCHR, "-128", "-128"},
      {LTYPE_UCHR, "255", "255"},
      {LTYPE_SSHT, " 42", "42"},
      {LTYPE_USHT, "65535", "65535"},
      {LTYPE_SINT, "-2147483648", "-2147483648"},
      {LTYPE_UINT, "4294967295", "4294967295"},
      {LTYPE_SLNG, "-9223372036854775808", "-9223372036854775808"},
      {LTYPE_ULNG, "18446744073709551615", "18446744073709551615"},
      {LTYPE_UIDX, "7", "7"},
      {LTYPE_FLT4, "0.1", "0.1"},
      {LTYPE_FLT8, "2.5e3", "2500"},
      {LTYPE_S128, "-170141183460469231731687303715884105728",
       "-170141183460469231731687303715884105728"},
      {word(LTYPE_DECIMAL, 5, 2), "123.456", "123.46"},
      {word(LTYPE_DECIMAL, 5, 2), "-0.005", "-0.01"},
      {word(LTYPE_DECIMAL, 2, 2), ".5", "0.50"},
      {word(LTYPE_DECIMAL, 18, 0), "999999999999999999", "999999999999999999"},
      {word(LTYPE_MONEY, 0, 2), "$ 12.345", "$ 12.35"},
      {word(LTYPE_MONEY, 0, 2), "-0.125", "$ -0.13"},
      {LTYPE_DATE, "1970-01-01", "1970-01-01"},
      {LTYPE_DATE, "2024-2-29", "2024-02-29"},
      {word(LTYPE_TIME, 0, 3), "12:34:56.7895", "12:34:56.789"},
      {word(LTYPE_TIME, 0, 6), "23:59:59.5", "23:59:59.500000"},
      {LTYPE_TIMESTAMP, "2000-02-29 08:00:01", "2000-02-29 08:00:01"},
      {word(LTYPE_TIMESTAMP, 0, 2), "1999-12-31T23:59:59.99", "1999-12-31 23:59:59.99"},
      {LTYPE_TIMESTAMP, "0001-01-01", "0001-01-01 00:00:00"},
      {LTYPE_INTERVALDS, "-1 01:01:01", "-1 01:01:01"},
      {word(LTYPE_INTERVALDS, 0, 1), "12:00:00.5", "0 12:00:00.5"},
      {LTYPE_INTERVALYM, "-0-01", "-0-01"},
      {LTYPE_INTERVALYM, "7-11", "7-11"},
  };
  for (const auto& c : cases) EXPECT_EQ(normalise(c.type, c.text), c.expected) << c.text;
  EXPECT_EQ(context->errors, nullptr);
}

TEST_F(ValueFromString, RefusedTextsRaiseTheirError) {
  struct Case {
    uint32_t type;
    const char* text;
    int32_t code;
  } cases[] = {
      {LTYPE_BOOL, "yes", KEST_ERR_NOT_BOOL},
      {LTYPE_SINT, "abc", KEST_ERR_NOT_NUMBER},
      {LTYPE_FLT8, "", KEST_ERR_NOT_NUMBER},
      {LTYPE_S128, "x1", KEST_ERR_NOT_NUMBER},
      {LTYPE_S128, "170141183460469231731687303715884105728", KEST_ERR_NOT_NUMBER},
      {word(LTYPE_DECIMAL, 5, 2), "12a", KEST_ERR_NOT_NUMBER},
      {word(LTYPE_DECIMAL, 5, 2), "1234.5", KEST_ERR_CONVERSION},
      {word(LTYPE_DECIMAL, 5, 2), "999.995", KEST_ERR_CONVERSION},
      {word(LTYPE_DECIMAL, 20, 2), "1", KEST_ERR_CONVERSION},
      {word(LTYPE_MONEY, 0, 2), "$$ dollars", KEST_ERR_NOT_MONEY},
      {LTYPE_DATE, "2023-02-29", KEST_ERR_CONVERSION},
      {LTYPE_DATE, "0000-01-01", KEST_ERR_CONVERSION},
      {LTYPE_DATE, "2023-13-01", KEST_ERR_CONVERSION},
      {LTYPE_DATE, "2023-01-01x", KEST_ERR_CONVERSION},
      {LTYPE_DATE, "today", KEST_ERR_CONVERSION},
      {LTYPE_TIME, "24:00:00", KEST_ERR_CONVERSION},
      {LTYPE_TIME, "12:60:00", KEST_ERR_CONVERSION},
      {LTYPE_TIME, "12:00:00.", KEST_ERR_CONVERSION},
      {LTYPE_TIMESTAMP, "2023-01-01 12:00", KEST_ERR_CONVERSION},
      {LTYPE_TIMESTAMP, "2023-01-01X12:00:00", KEST_ERR_CONVERSION},
      {LTYPE_INTERVALDS, "1 24:00:00", KEST_ERR_CONVERSION},
      {LTYPE_INTERVALYM, "1-12", KEST_ERR_CONVERSION},
      {LTYPE_INTERVALYM, "--1-01", KEST_ERR_CONVERSION},
      {word(LTYPE_VCHAR, 4), "abcd", KEST_ERR_CONVERSION},
      {word(LTYPE_CHAR, 1), "a", KEST_ERR_CONVERSION},
  };
  for (const auto& c : cases) {
    context->errors = nullptr;  // each case starts with no pending error
    EXPECT_EQ(normalise(c.type, c.text), "<null>") << c.text;
    EXPECT_EQ(last_code(), c.code) << c.text;
    EXPECT_EQ(param(0), c.text);
  }
}

TEST_F(ValueFromString, ConversionErrorNamesBothTypes) {
  unsigned char out[16];
  EXPECT_EQ(value_from_string(context, out, LTYPE_DATE, "soon"), KEST_ERR_CONVERSION);
  EXPECT_EQ(param(0), "soon");
  EXPECT_EQ(param(1), "str");
  EXPECT_EQ(param(2), "date");
}

TEST_F(ValueFromString, MoneyErrorIsNotAddedOverAPendingOne) {
  unsigned char out[16];
  EXPECT_EQ(value_from_string(context, out, LTYPE_BOOL, "maybe"), KEST_ERR_NOT_BOOL);
  EXPECT_EQ(value_from_string(context, out, word(LTYPE_MONEY, 0, 2), "none"), KEST_ERR_NOT_MONEY);
  EXPECT_EQ(last_code(), KEST_ERR_NOT_BOOL);
  double cents;
  std::memcpy(&cents, out, sizeof cents);
  EXPECT_EQ(cents, 0.0);
}

TEST_F(ValueFromString, StoresWithTheStorageWidth) {
  unsigned char out[16];
  std::memset(out, 0xAA, sizeof out);
  ASSERT_EQ(value_from_string(context, out, word(LTYPE_DECIMAL, 4, 1), "-12.5"), 0);
  int16_t v16;
  std::memcpy(&v16, out, 2);
  EXPECT_EQ(v16, -125);
  EXPECT_EQ(out[2], 0xAA);
  ASSERT_EQ(value_from_string(context, out, word(LTYPE_TIME, 0, 4), "01:00:00"), 0);
  int32_t v32;
  std::memcpy(&v32, out, 4);
  EXPECT_EQ(v32, 36000000);
  EXPECT_EQ(out[4], 0xAA);
}

}  // namespace
