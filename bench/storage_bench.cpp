// storage_bench.cpp - what storing a stream of records costs: appending
// 100,000 records of about 100 bytes to an unbounded and to a bounded block
// file, side by side in the same run with the floor (one write() per record to
// a plain file) and with SQLite (one transaction per record, WAL journal,
// synchronous=NORMAL); reading every record back by index; opening a file of
// 100,000 blocks against one sequential read of the same file; and the time
// of an append followed by Commit(); and opening a file of large blocks
// (--large-blocks of 64 KiB) against reading only their headers and against
// reading the whole file.
//
// Every phase first checks its results (a record read back must equal the one
// written), so a short run (`--records=2000 --commit-records=20`) serves as a
// smoke test. Each timing is the best of --repeat runs.
//
// Options:
//   --records=<n>          records per phase (default 100000)
//   --commit-records=<m>   appends with Commit after each (default 2000)
//   --ring=<k>             bound of the bounded file (default records / 10)
//   --repeat=<r>           runs per timing, the best one counts (default 3)
//   --dir=<path>           where the files go (default /tmp)
//   --large-blocks=<n>     blocks of 64 KiB in the large-block file (default 1000)
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "orvo_blockfile.h"
#include "orvo_record.h"
#include "orvo_time.h"

using namespace orvo;

namespace {

unsigned long gRecords = 100000;
unsigned long gCommitRecords = 2000;
unsigned long gRing = 0;
int gRepeat = 3;
std::string gDir = "/tmp";
unsigned long gLargeBlocks = 1000;

double Now()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

// Best wall time of gRepeat runs of body (prepare runs untimed before each).
double Best(const std::function<void()>& prepare, const std::function<void()>& body)
{
    double best = 1e30;
    for (int i = 0; i < gRepeat; ++i) {
        prepare();
        const double t0 = Now();
        body();
        best = std::min(best, Now() - t0);
    }
    return best;
}

[[noreturn]] void Fail(const std::string& what)
{
    std::fprintf(stderr, "storage_bench: %s\n", what.c_str());
    std::exit(1);
}

// A meter reading of about 100 bytes, different for every n.
cRecord Reading(unsigned long n)
{
    cRecord r;
    r.AppendTextPar("meter", "1ORV0012345678" + std::to_string(n % 7));
    r.AppendUIntPar("seq", static_cast<unsigned int>(n));
    r.AppendUIntPar("energy-wh", static_cast<unsigned int>(n * 37 + 1000000));
    r.AppendUIntPar("power-w", static_cast<unsigned int>(n % 5000));
    r.AppendTextPar("status", "ok");
    r.AppendUIntPar("tariff", static_cast<unsigned int>(n % 4));
    r.AppendUIntPar("voltage-mv", 230000 + static_cast<unsigned int>(n % 1000));
    return r;
}

std::string Bytes(const cRecord& r)
{
    return std::string(r.GetBuffer(), static_cast<size_t>(r.GetSize()));
}

struct sRun {
    std::vector<cRecord> records;
    std::string plain, unbounded, bounded, sqlite, committed;
};

void RemoveAll(const sRun& run)
{
    for (const std::string* p : {&run.plain, &run.unbounded, &run.bounded, &run.committed})
        unlink(p->c_str());
    for (const char* suffix : {"", "-wal", "-shm"})
        unlink((run.sqlite + suffix).c_str());
}

// ---- the floor: one write() per record --------------------------------------

double PlainAppend(const sRun& run)
{
    return Best([&] { unlink(run.plain.c_str()); },
                [&] {
                    const int fd = open(run.plain.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
                    for (const cRecord& r : run.records)
                        if (write(fd, r.GetBuffer(), static_cast<size_t>(r.GetSize())) != r.GetSize())
                            Fail("plain write");
                    close(fd);
                });
}

double PlainReadByIndex(const sRun& run)
{
    std::vector<off_t> offsets;
    off_t at = 0;
    for (const cRecord& r : run.records) {
        offsets.push_back(at);
        at += r.GetSize();
    }
    std::vector<char> buf(4096);
    return Best([] {},
                [&] {
                    const int fd = open(run.plain.c_str(), O_RDONLY | O_CLOEXEC);
                    for (size_t i = 0; i < run.records.size(); ++i) {
                        const size_t n = static_cast<size_t>(run.records[i].GetSize());
                        if (pread(fd, buf.data(), n, offsets[i]) != static_cast<ssize_t>(n))
                            Fail("plain read");
                    }
                    close(fd);
                });
}

// ---- block files ------------------------------------------------------------------

double OrvoAppend(const sRun& run, const std::string& path, unsigned long bound)
{
    const cTime when("01.06.2026 12:00:00");
    return Best([&] { unlink(path.c_str()); },
                [&] {
                    cRecordFile f;
                    if (!f.Open(path, true) || !f.SetMaxCount(bound))
                        Fail("open " + path);
                    for (unsigned long i = 0; i < run.records.size(); ++i)
                        if (f.Append(run.records[i], when, i) != BLOCKFILE_OK)
                            Fail("append");
                });
}

void CheckOrvo(const sRun& run, const std::string& path, unsigned long bound)
{
    cRecordFile f;
    if (!f.Open(path, false))
        Fail("reopen " + path);
    const unsigned long n = run.records.size();
    const unsigned long expect = bound == 0 ? n : std::min(n, bound);
    if (f.Count() != expect)
        Fail("count of " + path);
    cRecord r;
    cTime ctime;
    unsigned long long bstime = 0;
    for (unsigned long i = 0; i < f.Count(); ++i) {
        const unsigned long k = n - expect + i;
        if (f.GetAt(i, r, ctime, bstime) != BLOCKFILE_OK || bstime != k || Bytes(r) != Bytes(run.records[k]))
            Fail("record " + std::to_string(k) + " of " + path);
    }
}

double OrvoReadByIndex(const std::string& path)
{
    cRecordFile f;
    if (!f.Open(path, false))
        Fail("reopen " + path);
    return Best([] {},
                [&] {
                    cRecord r;
                    cTime ctime;
                    unsigned long long bstime = 0;
                    for (unsigned long i = 0; i < f.Count(); ++i)
                        if (f.GetAt(i, r, ctime, bstime) != BLOCKFILE_OK)
                            Fail("read back");
                });
}

double OrvoOpen(const std::string& path, unsigned long expect)
{
    return Best([] {},
                [&] {
                    cRecordFile f;
                    if (!f.Open(path, false) || f.Count() != expect)
                        Fail("open of " + path);
                });
}

double SequentialRead(const std::string& path)
{
    std::vector<char> buf(1 << 20);
    return Best([] {},
                [&] {
                    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
                    while (read(fd, buf.data(), buf.size()) > 0) {
                    }
                    close(fd);
                });
}

double OrvoAppendCommit(const sRun& run)
{
    const cTime when("01.06.2026 12:00:00");
    const unsigned long n = std::min<unsigned long>(gCommitRecords, run.records.size());
    const double t = Best([&] { unlink(run.committed.c_str()); },
                          [&] {
                              cRecordFile f;
                              if (!f.Open(run.committed, true) || !f.Commit())
                                  Fail("open " + run.committed);
                              for (unsigned long i = 0; i < n; ++i)
                                  if (f.Append(run.records[i], when, i) != BLOCKFILE_OK || !f.Commit())
                                      Fail("append and commit");
                          });
    return n == 0 ? 0 : t / static_cast<double>(n);
}

// ---- SQLite -------------------------------------------------------------------------

void Exec(sqlite3* db, const char* sql)
{
    char* err = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &err) != SQLITE_OK)
        Fail(std::string("sqlite: ") + (err ? err : "?"));
}

double SqliteAppend(const sRun& run)
{
    return Best([&] { RemoveAll({{}, "", "", "", run.sqlite, ""}); },
                [&] {
                    sqlite3* db = nullptr;
                    if (sqlite3_open(run.sqlite.c_str(), &db) != SQLITE_OK)
                        Fail("sqlite open");
                    Exec(db, "PRAGMA journal_mode=WAL");
                    Exec(db, "PRAGMA synchronous=NORMAL");
                    Exec(db, "CREATE TABLE r(id INTEGER PRIMARY KEY, ctime INTEGER, bstime INTEGER, data BLOB)");
                    sqlite3_stmt* ins = nullptr;
                    sqlite3_prepare_v2(db, "INSERT INTO r(ctime, bstime, data) VALUES(?, ?, ?)", -1, &ins, nullptr);
                    for (unsigned long i = 0; i < run.records.size(); ++i) {
                        // One transaction per record (autocommit).
                        sqlite3_bind_int64(ins, 1, 1780315200000LL);
                        sqlite3_bind_int64(ins, 2, static_cast<sqlite3_int64>(i));
                        sqlite3_bind_blob(ins, 3, run.records[i].GetBuffer(), run.records[i].GetSize(),
                                          SQLITE_STATIC);
                        if (sqlite3_step(ins) != SQLITE_DONE)
                            Fail("sqlite insert");
                        sqlite3_reset(ins);
                    }
                    sqlite3_finalize(ins);
                    sqlite3_close(db);
                });
}

double SqliteReadByIndex(const sRun& run)
{
    sqlite3* db = nullptr;
    if (sqlite3_open(run.sqlite.c_str(), &db) != SQLITE_OK)
        Fail("sqlite open");
    sqlite3_stmt* sel = nullptr;
    sqlite3_prepare_v2(db, "SELECT data FROM r WHERE id = ?", -1, &sel, nullptr);
    auto readAll = [&](bool check) {
        for (unsigned long i = 0; i < run.records.size(); ++i) {
            sqlite3_bind_int64(sel, 1, static_cast<sqlite3_int64>(i + 1));
            if (sqlite3_step(sel) != SQLITE_ROW)
                Fail("sqlite select");
            const int n = sqlite3_column_bytes(sel, 0);
            const char* p = static_cast<const char*>(sqlite3_column_blob(sel, 0));
            if (check && std::string(p, static_cast<size_t>(n)) != Bytes(run.records[i]))
                Fail("sqlite record " + std::to_string(i));
            sqlite3_reset(sel);
        }
    };
    readAll(true);
    const double t = Best([] {}, [&] { readAll(false); });
    sqlite3_finalize(sel);
    sqlite3_close(db);
    return t;
}

void ParseArgs(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&](const char* key) -> const char* {
            const size_t n = std::strlen(key);
            return a.compare(0, n, key) == 0 ? a.c_str() + n : nullptr;
        };
        if (const char* v = value("--records="))
            gRecords = std::strtoul(v, nullptr, 10);
        else if (const char* v = value("--commit-records="))
            gCommitRecords = std::strtoul(v, nullptr, 10);
        else if (const char* v = value("--ring="))
            gRing = std::strtoul(v, nullptr, 10);
        else if (const char* v = value("--repeat="))
            gRepeat = std::max(1, std::atoi(v));
        else if (const char* v = value("--dir="))
            gDir = v;
        else if (const char* v = value("--large-blocks="))
            gLargeBlocks = std::max(1UL, std::strtoul(v, nullptr, 10));
        else
            Fail("unknown option " + a);
    }
    if (gRing == 0)
        gRing = std::max<unsigned long>(1, gRecords / 10);
}

void Line(const char* what, double seconds, unsigned long n)
{
    std::printf("  %-44s %9.1f ms  %8.2f us/record\n", what, seconds * 1e3, seconds * 1e6 / static_cast<double>(n));
}

// Open of a file of large blocks: its cost should follow the blocks, not the
// bytes. Floor: one 26-byte pread per block header, in chain order.
void LargeBlockOpen(const std::string& path)
{
    const std::string payload(64 * 1024, 'p');
    {
        cBlockFile f;
        if (!f.Open(path, true))
            Fail("open " + path);
        for (unsigned long i = 0; i < gLargeBlocks; ++i)
            if (f.Append(payload.data(), payload.size(), cTime(), i) != BLOCKFILE_OK)
                Fail("append of a large block");
    }
    const double open = OrvoOpen(path, gLargeBlocks);
    const double headers = Best([] {},
                                [&] {
                                    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
                                    unsigned char h[26];
                                    for (unsigned long i = 0; i < gLargeBlocks; ++i)
                                        if (pread(fd, h, sizeof h, 17 + static_cast<off_t>(i) * (26 + 65536)) != 26)
                                            Fail("header read");
                                    close(fd);
                                });
    const double seq = SequentialRead(path);
    std::printf("open a file of %lu blocks of 64 KiB\n", gLargeBlocks);
    Line("one pread() per block header (floor)", headers, gLargeBlocks);
    Line("one sequential read of the file", seq, gLargeBlocks);
    Line("block file Open (chain recovery)", open, gLargeBlocks);
    std::printf("  large-block open / header reads     %6.2fx  (goal <= 2x: %s)\n", open / headers,
                open <= 2 * headers ? "met" : "MISSED");
    std::printf("  large-block open / sequential read  %6.2fx\n", open / seq);
    unlink(path.c_str());
}

}  // namespace

int main(int argc, char** argv)
{
    ParseArgs(argc, argv);
    sRun run;
    for (unsigned long i = 0; i < gRecords; ++i)
        run.records.push_back(Reading(i));
    size_t bytes = 0;
    for (const cRecord& r : run.records)
        bytes += static_cast<size_t>(r.GetSize());
    const std::string base = gDir + "/orvo_storage_bench_" + std::to_string(getpid());
    run.plain = base + ".plain";
    run.unbounded = base + ".unbounded";
    run.bounded = base + ".bounded";
    run.sqlite = base + ".sqlite";
    run.committed = base + ".committed";

    std::printf("storage_bench: %lu records, %.1f bytes each on average, ring of %lu, best of %d, files in %s\n",
                gRecords, static_cast<double>(bytes) / gRecords, gRing, gRepeat, gDir.c_str());
    std::printf("append\n");
    const double plain = PlainAppend(run);
    const double unbounded = OrvoAppend(run, run.unbounded, 0);
    CheckOrvo(run, run.unbounded, 0);
    const double bounded = OrvoAppend(run, run.bounded, gRing);
    CheckOrvo(run, run.bounded, gRing);
    const double sqlite = SqliteAppend(run);
    Line("plain file, one write() per record (floor)", plain, gRecords);
    Line("block file, unbounded", unbounded, gRecords);
    Line("block file, bounded (ring)", bounded, gRecords);
    Line("SQLite, WAL, synchronous=NORMAL, 1 tx/record", sqlite, gRecords);

    std::printf("read all back by index\n");
    const double plainRead = PlainReadByIndex(run);
    const double orvoRead = OrvoReadByIndex(run.unbounded);
    const double sqliteRead = SqliteReadByIndex(run);
    Line("plain file, one pread() per record", plainRead, gRecords);
    Line("block file, GetAt into a cRecord", orvoRead, gRecords);
    Line("SQLite, SELECT by primary key", sqliteRead, gRecords);

    std::printf("open a file of %lu blocks\n", gRecords);
    const double open = OrvoOpen(run.unbounded, gRecords);
    const double seq = SequentialRead(run.unbounded);
    Line("one sequential read of the file", seq, gRecords);
    Line("block file Open (chain recovery)", open, gRecords);

    const double commit = OrvoAppendCommit(run);
    std::printf("append + Commit (fdatasync, ordered appends), %lu records\n",
                std::min<unsigned long>(gCommitRecords, gRecords));
    std::printf("  %-44s %9.1f us/record\n", "block file, Commit after every append", commit * 1e6);

    std::printf("ratios\n");
    std::printf("  append unbounded / floor   %6.2fx  (goal <= 3x: %s)\n", unbounded / plain,
                unbounded <= 3 * plain ? "met" : "MISSED");
    std::printf("  append bounded / floor     %6.2fx  (goal <= 3x: %s)\n", bounded / plain,
                bounded <= 3 * plain ? "met" : "MISSED");
    std::printf("  append unbounded / SQLite  %6.2fx\n", unbounded / sqlite);
    std::printf("  read by index / SQLite     %6.2fx\n", orvoRead / sqliteRead);
    std::printf("  open / sequential read     %6.2fx  (goal <= 2x: %s)\n", open / seq,
                open <= 2 * seq ? "met" : "MISSED");
    RemoveAll(run);
    LargeBlockOpen(base + ".large");
    return 0;
}
