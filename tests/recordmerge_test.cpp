// Configuration merge, change by structured path and search by structured
// path. Expected records are built independently with plain appends and
// compared byte for byte.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <initializer_list>
#include <string>
#include <utility>

#include "orvo_recordmerge.h"
#include "test_helpers.h"

using namespace orvo;
using orvo_test::BytesOf;

namespace {

// The change feeds the watchdog: never the real device from a test run.
const bool kWatchdogRedirected = setenv("ORVO_WATCHDOG_DEVICE", "/dev/null", 0) == 0;

cRecord Cat(std::initializer_list<cRecord> parts)
{
    std::string b;
    for (const cRecord& p : parts)
        b += BytesOf(p);
    return cRecord(b.data(), static_cast<int>(b.size()));
}

cRecord U(const char* name, unsigned v, int flags = 0)
{
    cRecord r;
    r.AppendUIntPar(name, v, flags);
    return r;
}

cRecord Sub(const char* name, const cRecord& child, int flags = 0)
{
    cRecord r;
    r.AppendRecordPar(name, child, flags);
    return r;
}

cRecord List(const char* name, std::initializer_list<cRecord> children)
{
    cRecordList l;
    for (const cRecord& c : children)
        l.AddTail(c);
    cRecord r;
    r.AppendIRecPar(name, l, 0);
    return r;
}

cRecordPath PathOf(std::initializer_list<std::pair<const char*, cRecord>> levels)
{
    cRecordPath p;
    for (const auto& l : levels)
        p.AddLevel(l.first, l.second);
    return p;
}

#define EXPECT_SAME(got, want) \
    EXPECT_EQ(BytesOf(got), BytesOf(want)) << (got).ToString2() << "--\n" << (want).ToString2()

}  // namespace

TEST(RecordMerge, BuildConfigRecord)
{
    cRecord def = Cat({U("a", 1), U("b", 2, 0x20), U("t", 3, 0x80),
                       Sub("s", Cat({U("x", 1), U("y", 2, 0x80), U("w", 4, 0x20)})), U("c", 5)});
    cRecord res;
    bool changed = false;

    // Empty Current: Default without templates, at every level.
    cRecord none;
    EXPECT_TRUE(BuildtConfigRecord(def, none, res, changed));
    EXPECT_TRUE(changed);
    EXPECT_SAME(res, Cat({U("a", 1), U("b", 2, 0x20), Sub("s", Cat({U("x", 1), U("w", 4, 0x20)})), U("c", 5)}));

    // Current's order and values win; unknown names go (here nested); the
    // missing unmarked default "c" follows, marked ones are silent.
    cRecord cur = Cat({U("c", 9), Sub("s", Cat({U("q", 1), U("x", 7)})), U("zz", 1)});
    BuildtConfigRecord(def, cur, res, changed);
    EXPECT_TRUE(changed);
    EXPECT_SAME(res, Cat({U("c", 9), Sub("s", Cat({U("x", 7), U("w", 4, 0x20)})), U("a", 1), U("b", 2, 0x20)}));

    // Only marked defaults missing: added, not reported. Merging the result
    // again changes nothing.
    cur = Cat({U("c", 9), Sub("s", U("x", 7)), U("a", 1)});
    BuildtConfigRecord(def, cur, res, changed);
    EXPECT_FALSE(changed);
    EXPECT_SAME(res, Cat({U("c", 9), Sub("s", Cat({U("x", 7), U("w", 4, 0x20)})), U("a", 1), U("b", 2, 0x20)}));
    cRecord again;
    BuildtConfigRecord(def, res, again, changed);
    EXPECT_FALSE(changed);
    EXPECT_SAME(again, res);

    // A missing unmarked element nested in a present record is a change.
    // Result may alias Current.
    cRecord plain = Cat({U("a", 1), Sub("s", Cat({U("x", 1), U("y", 2)}))});
    cur = Cat({U("a", 1), Sub("s", U("x", 1))});
    BuildtConfigRecord(plain, cur, cur, changed);
    EXPECT_TRUE(changed);
    EXPECT_SAME(cur, plain);

    // A missing marked record is silent, content included; added records
    // carry no marks, like merged ones, so a result merges to itself.
    cRecord markedRecord = Cat({U("a", 1), Sub("m", U("k", 1), 0x20)});
    cur = U("a", 1);
    BuildtConfigRecord(markedRecord, cur, res, changed);
    EXPECT_FALSE(changed);
    EXPECT_SAME(res, Cat({U("a", 1), Sub("m", U("k", 1))}));

    // Damaged tail in Current: dropped, reported.
    std::string damaged = BytesOf(plain) + "\x03\x09z";
    cur = cRecord(damaged.data(), static_cast<int>(damaged.size()));
    BuildtConfigRecord(plain, cur, res, changed);
    EXPECT_TRUE(changed);
    EXPECT_SAME(res, plain);
}

namespace {

const cRecord kMeter1 = Cat({U("id", 1), U("r", 10)});
const cRecord kMeter2 =
    Cat({U("id", 2), U("r", 20), Sub("reg", U("n", 1)), Sub("reg", Cat({U("n", 2), U("v", 6)}))});
const cRecord kBus = List("bus", {U("id", 7), U("id", 8)});
const cRecord kCfg = Cat({U("v", 1), Sub("meter", kMeter1), Sub("meter", kMeter2), kBus});

cRecord Change(const cRecord& rec, const cRecordPath& path, const cRecord& change, bool& changed,
               const char* name = "")
{
    changed = false;
    return _ChangeRecord(rec, path, change, name, true, changed, 0);
}

}  // namespace

TEST(RecordChange, ReplaceRemoveAdd)
{
    bool changed;
    const cRecordPath meter2 = PathOf({{"meter", U("id", 2)}});
    const cRecord newMeter = Cat({U("id", 2), U("r", 99)});

    // Replace exactly the second meter; elements with mark 0x40 and
    // non-record elements of Change are not part of the replacement.
    cRecord out = Change(kCfg, meter2, Cat({Sub("x", U("id", 5), 0x40), U("n", 1), Sub("m", newMeter)}), changed);
    EXPECT_TRUE(changed);
    EXPECT_SAME(out, Cat({U("v", 1), Sub("meter", kMeter1), Sub("meter", newMeter), kBus}));
    EXPECT_SAME(ChangeRecord(kCfg, meter2, Sub("m", newMeter), "", false), kCfg);

    // Remove: an element whose list empties goes; a list entry goes alone.
    out = Change(kCfg, meter2, Sub("m", cRecord()), changed);
    EXPECT_SAME(out, Cat({U("v", 1), Sub("meter", kMeter1), kBus}));
    out = Change(kCfg, PathOf({{"bus", U("id", 8)}}), cRecord(), changed);
    EXPECT_SAME(out, Cat({U("v", 1), Sub("meter", kMeter1), Sub("meter", kMeter2), List("bus", {U("id", 7)})}));

    // Replace one entry of a list by two; an empty filter takes the first.
    out = Change(kCfg, PathOf({{"bus", cRecord()}}), Cat({Sub("a", U("id", 6)), Sub("b", U("id", 5))}), changed);
    EXPECT_SAME(out, Cat({U("v", 1), Sub("meter", kMeter1), Sub("meter", kMeter2),
                          List("bus", {U("id", 6), U("id", 5), U("id", 8)})}));

    // No match: added to the first element of the name, or as a new element.
    out = Change(kCfg, PathOf({{"meter", U("id", 3)}}), Sub("m", U("id", 3)), changed);
    EXPECT_SAME(out, Cat({U("v", 1), List("meter", {kMeter1, U("id", 3)}), Sub("meter", kMeter2),
                          kBus}));
    out = Change(kCfg, PathOf({{"gw", U("id", 3)}}), Sub("m", U("id", 3)), changed);
    EXPECT_SAME(out, Cat({kCfg, Sub("gw", U("id", 3))}));

    // No change reported: no match and nothing to add; identical replacement.
    EXPECT_SAME(Change(kCfg, PathOf({{"meter", U("id", 3)}}), cRecord(), changed), kCfg);
    EXPECT_FALSE(changed);
    Change(kCfg, meter2, Sub("m", kMeter2), changed);
    EXPECT_FALSE(changed);
}

TEST(RecordChange, NestedLevelsAndPositions)
{
    bool changed;
    const cRecord reg2 = Cat({U("n", 2), U("v", 60)});
    const cRecord meter2 = Cat({U("id", 2), U("r", 20), Sub("reg", U("n", 1)), Sub("reg", reg2)});
    const cRecord want = Cat({U("v", 1), Sub("meter", kMeter1), Sub("meter", meter2), kBus});
    const cRecord change = Sub("x", reg2);

    EXPECT_SAME(Change(kCfg, PathOf({{"meter", U("id", 2)}, {"reg", U("n", 2)}}), change, changed), want);
    // A root level "." filters the root record itself.
    const cRecordPath rooted = PathOf({{".", U("v", 1)}, {"meter", U("id", 2)}, {"reg", U("n", 2)}});
    EXPECT_SAME(Change(kCfg, rooted, change, changed), want);
    EXPECT_SAME(Change(kCfg, PathOf({{".", U("v", 2)}, {"meter", U("id", 2)}, {"reg", U("n", 2)}}), change, changed),
                kCfg);
    // No intermediate child is created.
    EXPECT_SAME(Change(kCfg, PathOf({{"meter", U("id", 5)}, {"reg", U("n", 2)}}), change, changed), kCfg);
    EXPECT_FALSE(changed);
    // Started at a child's position; a position outside the path addresses nothing.
    const cRecordPath path = PathOf({{"meter", U("id", 2)}, {"reg", U("n", 2)}});
    EXPECT_SAME(Change(kMeter2, path, change, changed, "meter"), meter2);
    EXPECT_SAME(Change(kMeter1, path, change, changed, "meter"), kMeter1);
}

TEST(RecordChange, FeedsWatchdogPerLevelAndElement)
{
    ASSERT_TRUE(kWatchdogRedirected);
    char dir[] = "/tmp/orvo_wdXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string fifo = std::string(dir) + "/wd";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int rd = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(rd, 0);
    setenv("ORVO_WATCHDOG_DEVICE", fifo.c_str(), 1);
    char buf[64];
    auto fed = [rd, &buf] { return static_cast<int>(read(rd, buf, sizeof buf)); };

    const cRecord rec = Cat({U("a", 1), Sub("r", U("k", 1)), Sub("r", U("k", 2)), U("z", 1)});
    const cRecordPath path = PathOf({{"r", U("k", 2)}});
    ChangeRecord(rec, path, Sub("x", U("k", 2)), "", false);
    EXPECT_EQ(fed(), 0);   // no writer came: end of file
    // One level, three elements scanned up to the match, one Change element.
    ChangeRecord(rec, path, Sub("x", U("k", 2)), "", true);
    EXPECT_EQ(fed(), 5);
    // Two depths with two levels each, one element scanned at each, no
    // Change element.
    ChangeRecord(Sub("r", Sub("s", U("k", 1))), PathOf({{"r", cRecord()}, {"s", U("k", 1)}}), cRecord(), "", true);
    EXPECT_EQ(fed(), 6);

    setenv("ORVO_WATCHDOG_DEVICE", "/dev/null", 1);
    close(rd);
    unlink(fifo.c_str());
    rmdir(dir);
}

TEST(RecordSearch, ByPath)
{
    const cRecordPath meter = PathOf({{"meter", cRecord()}});
    EXPECT_EQ(kCfg.GetParByPath(PathOf({{"meter", U("id", 2)}}), "r").GetUInt(), 20u);
    EXPECT_EQ(kCfg.GetParByPath(PathOf({{"meter", U("id", 2)}, {"reg", U("n", 2)}}), "v").GetUInt(), 6u);
    EXPECT_EQ(kCfg.GetParByPath(cRecordPath(), "v").GetUInt(), 1u);
    EXPECT_FALSE(kCfg.GetParByPath(PathOf({{"meter", U("id", 3)}}), "r").IsValid());
    EXPECT_FALSE(kCfg.GetParByPath(PathOf({{"meter", U("id", 1)}}), "reg").IsValid());

    // Value and First: only the addressed child, or every matching one.
    EXPECT_FALSE(SearchRecordPar(kCfg, meter, "r", "", "20", true).IsValid());
    EXPECT_EQ(SearchRecordPar(kCfg, meter, "r", "", "20", false).GetUInt(), 20u);
    const cRecordPath anyReg = PathOf({{"meter", cRecord()}, {"reg", cRecord()}});
    EXPECT_EQ(SearchRecordPar(kCfg, anyReg, "v", "", nullptr, false).GetUInt(), 6u);
    // Positions: a child's own level; one outside the path.
    EXPECT_EQ(SearchRecordPar(kMeter2, meter, "r", "meter", nullptr, true).GetUInt(), 20u);
    EXPECT_FALSE(SearchRecordPar(kMeter2, meter, "r", "bus", nullptr, true).IsValid());
    EXPECT_FALSE(SearchRecordPar(kMeter2, PathOf({{"meter", U("id", 1)}}), "r", "meter", nullptr, true).IsValid());
}
