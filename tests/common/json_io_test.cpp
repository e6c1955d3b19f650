#include "common/json_io.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <tuple>

namespace sensorlay {
namespace {

// Builds the same random document twice: as a JsonCpp value and as ours.
// Reals are whole-free doubles, so both writers print them alike.
void randomDocument(std::mt19937& g, int depth, Json::Value& theirs, JsonOut& ours) {
  const int kind = depth > 3 ? static_cast<int>(g() % 5) : static_cast<int>(g() % 7);
  switch (kind) {
    case 0:
      theirs = Json::Value();
      ours = JsonOut();
      break;
    case 1: {
      int v = static_cast<int>(g() % 2001) - 1000;
      theirs = v;
      ours = JsonOut(v);
      break;
    }
    case 2: {
      double v = (static_cast<double>(g()) + 0.5) / 3.0e5;
      theirs = v;
      ours = JsonOut(v);
      break;
    }
    case 3: {
      static const char* texts[] = {"", "abc", "with \"quote\"", "tab\there", "back\\slash", "a/b", "ctl\x01"};
      std::string t = texts[g() % 7];
      // Now and then raw bytes, broken UTF-8 included.
      if (g() % 3 == 0)
        for (int n = static_cast<int>(g() % 6); n > 0; --n) t += static_cast<char>(1 + g() % 255);
      theirs = t;
      ours = JsonOut(t);
      break;
    }
    case 4: {
      bool b = g() % 2;
      theirs = b;
      ours = JsonOut(b);
      break;
    }
    case 5: {
      theirs = Json::Value(Json::arrayValue);
      ours = JsonOut::array();
      const int n = static_cast<int>(g() % 30);
      for (int i = 0; i < n; ++i) {
        Json::Value t;
        JsonOut o;
        randomDocument(g, depth + 1, t, o);
        theirs.append(t);
        ours.append(o);
      }
      break;
    }
    default: {
      theirs = Json::Value(Json::objectValue);
      ours = JsonOut::object();
      const int n = static_cast<int>(g() % 6);
      for (int i = 0; i < n; ++i) {
        const std::string key = std::string(1, char('a' + g() % 26)) + std::to_string(g() % 100);
        Json::Value t;
        JsonOut o;
        randomDocument(g, depth + 1, t, o);
        theirs[key] = t;
        ours[key] = o;
      }
    }
  }
}

TEST(JsonWriter, MatchesStyledWriterLayoutAtItsOwnMargin) {
  std::mt19937 g(7);
  for (int round = 0; round < 400; ++round) {
    Json::Value theirs;
    JsonOut ours;
    randomDocument(g, 0, theirs, ours);
    Json::StyledWriter writer;
    ASSERT_EQ(writer.write(theirs), writeStyledJson(ours, 74)) << "round " << round;
  }
}

// At the wide margin an array stays on one line while 4 + 2 * (n - 1) plus
// the widths of its n elements, and 3 * n, both stay below 160.
TEST(JsonWriter, WideMarginKeepsLongerArraysOnOneLine) {
  const std::tuple<int, int, bool> cases[] = {
      {30, 1000, false},  // 4 + 58 + 120 = 182 columns
      {20, 1000, true},   // 4 + 38 + 80 = 122 columns
      {54, 0, false},     // 3 * 54 = 162, however narrow the elements
      {50, 0, true},      // 4 + 98 + 50 = 152 columns
  };
  for (const auto& [count, first, oneLine] : cases) {
    JsonOut row = JsonOut::array();
    for (int i = 0; i < count; ++i) row.append(first ? first + i : 0);
    JsonOut root;
    root["a"] = row;
    const std::string text = writeStyledJson(root);
    EXPECT_EQ(text.find("[\n") == std::string::npos, oneLine) << count;
    EXPECT_EQ(text.find("[ " + std::to_string(first) + ", ") != std::string::npos, oneLine) << count;
  }
}

TEST(JsonWriter, NumbersKeepTheWidthOfTheirSource) {
  JsonOut a = JsonOut::array();
  a.append(0.05f);
  a.append(0.05);
  a.append(0.0f);
  a.append(2.0);
  a.append(int32_t{-3});
  a.append(uint32_t{4000000000u});
  a.append(1e-7f);
  EXPECT_EQ(writeStyledJson(a), "[ 0.0500000007, 0.050000000000000003, 0, 2, -3, 4000000000, 1.00000001e-07 ]\n");
  EXPECT_EQ(formatJsonNumber(std::nan(""), 17), "null");
  // Digit for digit what printf's "%.*g" writes, over the whole range of bit
  // patterns and both widths.
  std::mt19937_64 g(7);
  for (int i = 0; i < 20000; ++i) {
    const uint64_t bits = g();
    double value;
    std::memcpy(&value, &bits, sizeof value);
    if (!std::isfinite(value)) continue;
    for (int digits : {9, 17}) {
      for (double v :
           {value, static_cast<double>(static_cast<float>(value)), static_cast<double>(bits % 100000) / 64}) {
        if (!std::isfinite(v)) continue;
        char expected[64];
        std::snprintf(expected, sizeof expected, "%.*g", digits, v);
        ASSERT_EQ(formatJsonNumber(v, digits), expected) << digits;
      }
    }
  }
}

}  // namespace
}  // namespace sensorlay
