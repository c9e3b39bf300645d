// orvo-scm's parts without a process: the JSON file's form and its refusals,
// the command-line placeholder, and the watchdog's counting.
#include <gtest/gtest.h>

#include <algorithm>

#include "scm_config.h"
#include "scm_watchdog.h"

using namespace orvo_scm;

TEST(ScmFile, ReadsEntriesInFileOrder)
{
    tScmFile file;
    std::string error;
    ASSERT_TRUE(ParseScmFile(R"({"services": {
        "zeta": {"start": true, "command": "run {scm-sap}", "failure-action": "restart",
                 "config": [{"name": "a", "type": "uint", "value": 1}]},
        "alpha": {}}})", file, error)) << error;
    ASSERT_EQ(file.services.size(), 2u);
    EXPECT_EQ(file.services[0].name, "zeta");
    EXPECT_TRUE(file.services[0].start);
    EXPECT_EQ(file.services[0].failureAction, "restart");
    EXPECT_EQ(file.services[0].config.GetFirstPar("a").GetUInt(), 1u);
    EXPECT_EQ(file.Find("alpha"), &file.services[1]);
    EXPECT_TRUE(file.services[1].config.IsEmpty());
    EXPECT_EQ(file.Find("beta"), nullptr);
}

TEST(ScmFile, RefusesMalformedFilesAndKeepsThePreviousContents)
{
    const struct {
        const char* json;
        const char* message;
    } cases[] = {
        {R"({"services": [] })", "must be an object holding only \"services\""},
        {R"({"services": {}, "extra": 1})", "must be an object holding only \"services\""},
        {R"({"services": {"": {}}})", "a service name must not be empty"},
        {R"({"services": {"a": 5}})", "services.a: must be an object"},
        {R"({"services": {"a": {"start": "yes"}}})", "services.a: unknown key or wrong type: \"start\""},
        {R"({"services": {"a": {"commands": "x"}}})", "unknown key or wrong type: \"commands\""},
        {R"({"services": {"a": {"start": true}}})", "services.a: \"start\" needs a \"command\""},
        {R"({"services": {"a": {"config": [{"name": "n", "type": "uint", "value": -1}]}}})",
         "services.a.config: element 0 \"n\": uint value must be"},
        {R"({"services": {)", "parse error"},
        // Wrong entries and syntax errors name their line.
        {"{\"services\": {\n  \"ok\": {},\n  \"bad\": {\"start\": 1}}}", "line 3: services.bad: unknown key"},
        {"{\"services\": {\"a\": {},\n \"b\": {\"config\": [{\"name\": \"b\"}]}}}", "line 2: services.b.config:"},
        {"{\"services\": {\n  \"a\": {}\n  \"b\": {}}}", "parse error at line 3, column"},
    };
    for (const auto& c : cases) {
        tScmFile file;
        file.services.push_back(tServiceEntry());
        file.services[0].name = "kept";
        std::string error;
        EXPECT_FALSE(ParseScmFile(c.json, file, error)) << c.json;
        EXPECT_NE(error.find(c.message), std::string::npos) << c.json << "\n  gave: " << error;
        ASSERT_EQ(file.services.size(), 1u);
        EXPECT_EQ(file.services[0].name, "kept");
    }
}

TEST(ScmFile, CommandPlaceholderIsReplacedEverywhere)
{
    EXPECT_EQ(ExpandCommand("svc -scm-sap {scm-sap} -peer {scm-sap}", "127.0.0.1:5"),
              "svc -scm-sap 127.0.0.1:5 -peer 127.0.0.1:5");
    EXPECT_EQ(ExpandCommand("svc {scm-sap}", "{scm-sap}"), "svc {scm-sap}");
    EXPECT_EQ(ExpandCommand("svc", "x"), "svc");
}

TEST(Watchdog, CountsUnansweredTriggersUpToTheLimitThenStartsAgain)
{
    cWatchdogBook book;
    book.Watch("a", 2);
    book.Watch("b", 0);   // counts as 1
    cWatchdogBook::tTick t = book.Tick();
    ASSERT_EQ(t.triggers.size(), 2u);
    EXPECT_TRUE(t.failed.empty());
    const unsigned seqA = t.triggers[0].name == "a" ? t.triggers[0].seq : t.triggers[1].seq;

    EXPECT_FALSE(book.Answer("a", seqA + 100)) << "a sequence number never sent";
    EXPECT_TRUE(book.Answer("a", seqA));
    EXPECT_FALSE(book.Answer("a", seqA)) << "answered already";
    t = book.Tick();   // a answered; b missed once: its limit
    EXPECT_EQ(t.failed, std::vector<std::string>{"b"});
    EXPECT_EQ(book.Missed("a"), 0u);
    EXPECT_EQ(book.Missed("b"), 0u) << "counting starts again after a failure";

    const unsigned staleA = t.triggers[0].seq;
    t = book.Tick();   // a missed once
    EXPECT_FALSE(book.Answer("a", staleA)) << "an answer to an older trigger does not count";
    EXPECT_EQ(book.Missed("a"), 1u);
    t = book.Tick();   // a missed twice: fails
    EXPECT_NE(std::find(t.failed.begin(), t.failed.end(), "a"), t.failed.end());

    book.Forget("b");
    EXPECT_FALSE(book.IsWatched("b"));
    EXPECT_EQ(book.Tick().triggers.size(), 1u);
}

// A client's change put into a configuration: elements replaced in place,
// new ones appended, at the top or inside nested records; a path that names
// no record leaves the configuration as it was.
TEST(ScmConfigChange, SetsElementsAtAPath)
{
    using orvo::cRecord;
    cRecord inner;
    inner.AppendUIntPar("x", 1);
    inner.AppendTextPar("y", "a");
    cRecord config;
    config.AppendUIntPar("tick-ms", 200);
    config.AppendRecordPar("system", inner);
    config.AppendTextPar("ip", "127.0.0.1");

    const struct {
        std::vector<std::string> levels;
        const char* name;
        unsigned value;
        bool ok;
        const char* text;   // the result's ToString()
    } cases[] = {
        {{}, "tick-ms", 300, true, "{tick-ms=300, system={ x=1, y=\"a\"  }, ip=127.0.0.1 }"},
        {{}, "new", 7, true, "{tick-ms=200, system={ x=1, y=\"a\"  }, ip=127.0.0.1, new=7 }"},
        {{"system"}, "x", 5, true, "{tick-ms=200, system={ x=5, y=\"a\"  }, ip=127.0.0.1 }"},
        {{"system"}, "z", 9, true, "{tick-ms=200, system={ x=1, y=\"a\", z=9  }, ip=127.0.0.1 }"},
        {{"nosuch"}, "x", 5, false, nullptr},
        {{"ip"}, "x", 5, false, nullptr},               // a text, not a record
        {{"system", "deeper"}, "x", 5, false, nullptr},
    };
    for (const auto& c : cases) {
        cRecord change, result = config;
        change.AppendUIntPar(c.name, c.value);
        EXPECT_EQ(SetAtPath(result, c.levels, change), c.ok) << c.name;
        EXPECT_EQ(result.ToString(), c.ok ? c.text : config.ToString()) << c.name;
    }
}
