// Transfer tables: padding that keeps unclamped reads safe, window and
// control-point ramps, and the errors of the builders.
#include "host/table_builder.h"

#include <gtest/gtest.h>

#include <any>

using namespace zrobjects;

TEST(MapTables, RowsArePaddedWithTheLastCountedEntry) {
    const MapTable table = MakeMapTable({{PackEntry(1, 2, 3, 4), PackEntry(5, 6, 7, 8)},
                                         {PackEntry(9, 9, 9, 9), PackEntry(10, 10, 10, 10)}});
    EXPECT_EQ(table.array_lengths, glm::ivec2(2, 2));
    EXPECT_EQ(table.pp_data[0][1], PackEntry(5, 6, 7, 8));
    // Index L and every 16-bit index are readable and repeat the last entry.
    EXPECT_EQ(table.pp_data[0][2], PackEntry(5, 6, 7, 8));
    EXPECT_EQ(table.pp_data[0][65535], PackEntry(5, 6, 7, 8));
    EXPECT_EQ(table.pp_data[1][65535], PackEntry(10, 10, 10, 10));
    // A full-length row is readable at index L too.
    std::vector<uint32_t> row(kFullTableLength);
    for (int t = 0; t < kFullTableLength; ++t) row[t] = static_cast<uint32_t>(t);
    EXPECT_EQ(MakeMapTable({row}).pp_data[0][65536], 65535u);
}

TEST(MapTables, TableObjectsCarryTheTableUnderItsKey) {
    bool found = false;
    auto object = MakeTableObject({{PackEntry(0, 0, 0, 0)}});
    EXPECT_EQ(std::any_cast<const MapTable&>(object->GetObjParamA("_TableMap_OTF", found)).array_lengths,
              glm::ivec2(1, 1));
    EXPECT_TRUE(found);
}

TEST(TableEntries, PackingPutsRedWhereTheDefaultChannelOrderReadsIt) {
    const uint32_t e = PackEntry(0x11, 0x22, 0x33, 0x44);
    EXPECT_EQ(e & 0xff, 0x33u);          // c0: blue
    EXPECT_EQ((e >> 8) & 0xff, 0x22u);   // c1: green
    EXPECT_EQ((e >> 16) & 0xff, 0x11u);  // c2: red
    EXPECT_EQ(e >> 24, 0x44u);
}

TEST(TableEntries, WindowRampsFromBlackToWhiteAcrossTheWindow) {
    const auto entries = WindowTableEntries(1000.0, 200.0, 65536);
    const auto grey = [&](int t) { return entries[t] & 0xff; };
    EXPECT_EQ(grey(800), 0u);
    EXPECT_EQ(grey(899), 0u);
    EXPECT_NEAR(static_cast<double>(grey(1000)), 127.5, 1.0);
    EXPECT_EQ(grey(1101), 255u);
    EXPECT_EQ(entries[5] >> 24, 255u);
    for (int t = 1; t < 65536; ++t) ASSERT_GE(grey(t), grey(t - 1));
}

TEST(TableEntries, ControlPointsInterpolateAndHoldBeyondTheEnds) {
    const auto entries = ControlPointTableEntries({{100, 1, 0, 0, 0}, {300, 0, 0, 1, 1}}, 65536);
    const auto channel = [&](int t, int c) { return (entries[t] >> (8 * c)) & 0xff; };
    EXPECT_EQ(channel(0, 2), 255u);   // red before the first point
    EXPECT_EQ(channel(0, 3), 0u);
    EXPECT_NEAR(static_cast<double>(channel(200, 2)), 127.5, 1.0);  // halfway
    EXPECT_NEAR(static_cast<double>(channel(200, 0)), 127.5, 1.0);
    EXPECT_EQ(channel(200, 2) + channel(200, 0), 255u);
    EXPECT_EQ(channel(60000, 0), 255u);
    EXPECT_EQ(channel(60000, 3), 255u);
}

TEST(TableErrors, BadTablesAreRejectedWithAReason) {
    EXPECT_THROW(MakeMapTable({}), std::invalid_argument);
    EXPECT_THROW(MakeMapTable({{}}), std::invalid_argument);
    EXPECT_THROW(MakeMapTable({{1, 2}, {3}}), std::invalid_argument);
    EXPECT_THROW(WindowTableEntries(0.0, 0.0), std::invalid_argument);
    EXPECT_THROW(WindowTableEntries(0.0, 10.0, 0), std::invalid_argument);
    EXPECT_THROW(ControlPointTableEntries({}), std::invalid_argument);
    EXPECT_THROW(ControlPointTableEntries({{10, 0, 0, 0, 0}, {5, 0, 0, 0, 0}}), std::invalid_argument);
}
