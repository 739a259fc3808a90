#include <chrono>
#include <cmath>
#include <csignal>
#include <future>
#include <numeric>
#include <random>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "SharedModels/Runtime/JSONCoding.hpp"
#include "Storage/DatabaseFiles.hpp"
#include "Storage/SQLiteSnapshotStore.hpp"
#include "Storage/SQLiteSnapshotStoreLocation.hpp"
#include "Storage/SnapshotStoreError.hpp"
#include "Tests/Support/Command.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"
#include "Tests/Support/ThrownBy.hpp"

// What becomes of the history when processes, disks and clocks fail, tried on the real executable.

namespace quenzel {
namespace {

using enum SnapshotInsertOutcome;
using Mode = SQLiteSnapshotStore::Mode;
using namespace ::testing;
using namespace testing;
using Snapshots = std::vector<DrainSnapshot>;

constexpr double start = 1'700'000'000;
const std::string program = QUENZEL_BINARY_DIRECTORY "/quenzel ";
const std::string asUser = "setpriv --reuid 65534 --regid 65534 --clear-groups ", withMounts = "unshare -rm ";
const char* const databaseFiles[] = {"", "-wal", "-shm"};
const std::string unableToOpen = "unable to open database file";
const std::string endless = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) ";

/// Snapshots with rows in every table, as they read back.
Snapshots wholeSnapshots(double first, int count, double step = 10) {
  Snapshots snapshots;
  for (int index = 0; index < count; ++index) {
    DrainSnapshot& snapshot = snapshots.emplace_back(makeSnapshot(first + index * step, 10));
    for (int pid = 1; pid <= 20; ++pid)
      snapshot.processes.push_back(makeNamedDrain(pid, fmt::format("p{}", pid), 1.0 / pid, {"a", "b"}));
    snapshot.hidden.push_back({.identifier = "box", .drainW = 1});
    snapshot.batteryStatus.emplace().levelPercent = 50;
  }
  return snapshots;
}

DrainSnapshot wholeSnapshot(double time) { return wholeSnapshots(time, 1).front(); }

std::string linesOf(const Snapshots& snapshots) {
  std::string lines;
  for (const DrainSnapshot& snapshot : snapshots) lines += encodeJSON(encodeDrainSnapshot(snapshot)) + "\n";
  return lines;
}

int insertedIn(const std::string& output) {
  int count = 0;
  for (auto at = output.find("inserted\n"); at != std::string::npos; at = output.find("inserted\n", at + 1))
    ++count;
  return count;
}

std::string text(Database& database, const char* sql) {
  Statement select = database.prepared(sql);
  return select.next() ? select.column<std::string>(0) : "(none)";
}

/// All that is stored in a sound database. Nothing as long as none is made, or one whose making was cut short
/// before write-ahead logging was on, which only the next writer can put in order. Leaves the files as they
/// are.
Snapshots soundContent(const std::string& path) try {
  Database database(path, Database::Access::readOnly);
  EXPECT_EQ(text(database, "PRAGMA integrity_check;"), "ok");
  EXPECT_EQ(text(database, "PRAGMA foreign_key_check;"), "(none)");
  return SQLiteSnapshotStore(path, Mode::readOnly).fetchLatest(1'000'000);
} catch (const SnapshotStoreError& error) {
  EXPECT_THAT(error.what(),
              ContainsRegex(unableToOpen + "|no such table: snapshots|attempt to write a readonly"));
  return {};
}

class StoreFaultTest : public ::testing::Test {
 protected:
  void store(const Snapshots& snapshots) {
    SQLiteSnapshotStore store(path, Mode::readWriteCreate);
    for (const DrainSnapshot& snapshot : snapshots) store.insert(snapshot);
  }
  /// The command that imports snapshots into a database.
  std::string import(const std::string& database, const Snapshots& snapshots) const {
    const std::string file =
        fmt::format("{}-{}", snapshots.front().timestamp.secondsSince1970(), snapshots.size());
    return fmt::format("{} history import --database {} {}", program, database,
                       folder.write(file, linesOf(snapshots)));
  }
  /// Runs a command on the database, to which the import of one more snapshot is "import".
  CommandResult run(const std::string& command) const {
    return runCommand("timeout 20 " + (command == "import"
                                           ? import(path, wholeSnapshots(start + 5000, 1))
                                           : fmt::format("{} {} --database {}", program, command, path)));
  }
  CommandResult failure(const std::string& why) const {
    return {1, fmt::format("quenzel: {}: {}\n", path, why)};
  }
  void removeDatabase() const { std::filesystem::remove_all(disk); }

  TemporaryDirectory folder;
  const std::string disk = folder / "disk", path = disk + "/h.sqlite";
};

// Every outcome that is printed stands for a committed snapshot. The check leaves the killed process's log
// for the next one to recover.
TEST_F(StoreFaultTest, KilledProcessLosesNothingAcknowledged) {
  constexpr int batch = 30, kills = 40;
  const auto seed = std::random_device{}();
  std::mt19937 random(seed);
  const auto before = std::chrono::steady_clock::now();
  Snapshots expected = wholeSnapshots(start, batch);
  ASSERT_EQ(runCommand(import(path, expected)).status, 0);
  const std::chrono::duration<double> whole = std::chrono::steady_clock::now() - before;
  int killed = 0;
  for (int round = 1; killed < kills && round < 3 * kills && !HasFailure(); ++round) {
    const double delay = whole.count() * std::pow(std::uniform_real_distribution<double>(0, 1)(random), 2);
    SCOPED_TRACE(fmt::format("seed {}, round {}, killed after {} s", seed, round, delay));
    if (round % 8 == 0) {
      removeDatabase();
      expected.clear();
    }
    const Snapshots offered = wholeSnapshots(start + 1000 * round, batch);
    folder.write("told", "");  // it may be killed before it comes to that itself
    killed += runCommand(fmt::format("{} >{} & sleep {:.4f}; kill -9 $! 2>&-; wait $!", import(path, offered),
                                     folder / "told", delay))
                  .status == 128 + SIGKILL;
    const Snapshots stored = soundContent(path);
    const int told = insertedIn(folder.read("told")),
              added = static_cast<int>(stored.size() - expected.size());
    ASSERT_TRUE(added <= batch && (added == told || added == told + 1)) << added << ", told " << told;
    expected.insert(expected.end(), offered.begin(), offered.begin() + added);
    EXPECT_TRUE(stored == expected);
  }
  EXPECT_EQ(killed, kills);
}

// SQLite answers the second of two that switch a new file to write-ahead logging without waiting.
TEST_F(StoreFaultTest, WritersThatComeFirstTogetherAllSucceed) {
  const Snapshots snapshots = wholeSnapshots(start, 4);
  for (int round = 0; round < 80 && !HasFailure(); ++round) {
    removeDatabase();
    std::vector<std::future<void>> writers;
    for (const DrainSnapshot& snapshot : snapshots)
      writers.push_back(std::async(std::launch::async, [&] { store({snapshot}); }));
    for (auto& writer : writers) EXPECT_NO_THROW(writer.get()) << "round " << round;
    EXPECT_TRUE(soundContent(path) == snapshots);
  }
}

TEST_F(StoreFaultTest, WritersLoseNothingAndReadersSeeWholeSnapshots) {
  constexpr int count = 150;
  store(wholeSnapshots(start - 5, 1));
  const std::string writers =
      import(path, wholeSnapshots(start, count)) + " & " + import(path, wholeSnapshots(start + 5, count));
  auto written = std::async(std::launch::async, runCommand, "{ " + writers + " && wait $!; }");
  do {
    for (const DrainSnapshot& seen : SQLiteSnapshotStore(path, Mode::readOnly).fetchLatest(5))
      EXPECT_TRUE(seen == wholeSnapshot(seen.timestamp.secondsSince1970()));
  } while (written.wait_for(std::chrono::seconds(0)) != std::future_status::ready);
  const CommandResult result = written.get();
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_TRUE(soundContent(path) == wholeSnapshots(start - 5, 2 * count + 1, 5));
}

// A first import where there is too little space, and a second one when there is more.
TEST_F(StoreFaultTest, LackOfSpaceFailsTheInsertAlone) {
  const Snapshots first = wholeSnapshots(start, 100), second = wholeSnapshots(start + 5000, 5);
  const std::string rows[][3] = {
      {"", "ulimit -f 400", ":"},
      {withMounts, "mount -t tmpfs -o size=400k none " + disk, "mount -o remount,size=10m " + disk}};
  for (const auto& [shell, limit, relief] : rows) {
    if (!shell.empty() && runCommand(shell + "mount -t tmpfs none /mnt").status != 0)
      GTEST_SKIP() << "no file system can be mounted here";
    const CommandResult result = runCommand(fmt::format(
        "{} sh -c '({}; exec {}); echo {}; {} && {} && {} history export --database {} >{}'", shell, limit,
        import(path, first), "$?", relief, import(path, second), program, path, folder / "exported"));
    EXPECT_THAT(result.output,
                ContainsRegex("^(inserted\n)+(error: (database or disk is full|disk I/O error)\n)+"
                              "1\n(inserted\n){5}$"));
    const Snapshots kept(first.begin(), first.begin() + insertedIn(result.output) - 5);
    EXPECT_TRUE(folder.read("exported") == linesOf(kept) + linesOf(second));
  }
  EXPECT_FALSE(soundContent(path).empty());
}

TEST_F(StoreFaultTest, DamagedFileIsReported) {
  store(wholeSnapshots(start, 9));
  const std::string bytes = folder.read("disk/h.sqlite"), noise(9000, '\xA5'),
                    malformed = "database disk image is malformed", foreign = "file is not a database";
  const std::pair<std::string, std::string> rows[] = {{bytes.substr(0, 60), malformed},
                                                      {bytes.substr(0, bytes.size() / 2 + 77), malformed},
                                                      {bytes.substr(0, 4096) + noise, malformed},
                                                      {"hello", foreign},
                                                      {noise, foreign}};
  for (const auto& [content, message] : rows) {
    removeDatabase();
    folder.write("disk/h.sqlite", content);
    for (const char* command :
         {"history latest", "history details", "import", "history purge --older-than 9"})
      EXPECT_EQ(run(command), failure(message)) << command << " of " << content.size() << " bytes";
  }
}

// What any user may do in a folder that is open to all, to whoever opens the history there next.
TEST_F(StoreFaultTest, OnlyPlainFilesAreDatabases) {
  const std::string symbolic = "Symbolic links are refused", odd = "Not a regular file",
                    hard = "Files with a second hard link are refused", victim = folder / "victim";
  const std::string rows[][3] = {{"ln -s ../victim", "", symbolic},
                                 {"ln ../victim", "", hard},
                                 {"mkfifo", "", odd},
                                 {"mkdir", "", unableToOpen},
                                 {"ln -s ../victim", "-journal", symbolic},
                                 {"ln ../victim", "-wal", hard},
                                 {"mkfifo", "-shm", odd}};
  SQLiteSnapshotStore(folder / "other.sqlite", Mode::readWriteCreate).insert(wholeSnapshot(start));
  const std::string content = folder.read("other.sqlite");
  for (const auto& [plant, suffix, message] : rows) {
    removeDatabase();
    store(wholeSnapshots(start, 1));
    folder.write("victim", content);
    ASSERT_EQ(
        runCommand(fmt::format("cd {0}; rm -f h.sqlite{1}; {2} h.sqlite{1}", disk, suffix, plant)).output,
        "");
    for (const char* command : {"history latest", "estimates list", "import"})
      EXPECT_EQ(run(command), failure(message + (suffix.empty() ? "" : fmt::format(": {}{}", path, suffix))));
    EXPECT_EQ(folder.read("victim"), content) << plant << suffix;
  }
  EXPECT_EQ(runCommand(import(victim + "/h", wholeSnapshots(start, 1))).output,
            fmt::format("quenzel: {0}/h: Can't create the folder {0}: File exists\n", victim));
  const std::string tooLong = folder / std::string(300, 'n');
  EXPECT_EQ(runCommand(import(tooLong, wholeSnapshots(start, 1))).output,
            fmt::format("quenzel: {0}: Can't create the file {0}: File name too long\n", tooLong));
  // A name that SQLite by itself takes for a database in memory.
  const std::string command = import(":memory:", wholeSnapshots(start, 1));
  EXPECT_EQ(runCommand(fmt::format("cd {} && {}", disk, command)).output, "inserted\n");
  EXPECT_EQ(soundContent(disk + "/:memory:").size(), 1U);
}

TEST_F(StoreFaultTest, FoldersAreReachedOverTrustedLinksOnly) {
  const std::string link = folder / "link";
  std::filesystem::create_directory(disk);
  std::filesystem::create_symlink("disk/.", link);
  EXPECT_EQ(DatabaseFiles(link + "/../link/h.sqlite").path(), path);
  SQLiteSnapshotStore(link + "/h.sqlite", Mode::readWriteCreate).insert(wholeSnapshot(start));
  EXPECT_EQ(soundContent(path).size(), 1U);
  const auto refusal = [](const std::string& file, uid_t user) {
    return std::string(thrownBy<SnapshotStoreError>([&] { DatabaseFiles(file, user); }).what());
  };
  const uid_t stranger = 54321;
  if (::geteuid() == 0) {
    ASSERT_EQ(::lchown(link.c_str(), stranger - 1, stranger - 1), 0);
  }
  EXPECT_EQ(refusal(link + "/h.sqlite", stranger),
            fmt::format("The symbolic link {} of another user is not followed", link));
  std::filesystem::create_symlink("loop", folder / "loop");
  EXPECT_EQ(refusal(folder / "loop/h", ::geteuid()), "Too many symbolic links");
}

// The rollback journal of a transaction that was cut short names a super-journal, which SQLite would delete.
TEST_F(StoreFaultTest, NoJournalHasAnotherFileDeleted) {
  store(wholeSnapshots(start, 1));
  const std::string victim = folder.write("victim", "precious"), magic = "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7";
  std::string journal = magic;
  const auto append = [&](std::size_t number) {
    for (const int shift : {24, 16, 8, 0}) journal += static_cast<char>(number >> shift & 0xFF);
  };
  for (const std::size_t number : {0UL, 0UL, std::filesystem::file_size(path) / 4096, 512UL, 4096UL})
    append(number);
  journal.resize(512);
  append(0x40000000 / 4096 + 1);
  journal += victim;
  append(victim.size());
  append(std::accumulate(victim.begin(), victim.end(), std::size_t{0}));
  folder.write("disk/h.sqlite-journal", journal + magic);
  EXPECT_EQ(run("import"), (CommandResult{0, "inserted\n"}));
  EXPECT_EQ(folder.read("victim"), "precious");
  EXPECT_FALSE(std::filesystem::exists(path + "-journal")) << "found, and dealt with";
  EXPECT_EQ(soundContent(path).size(), 2U);
}

TEST_F(StoreFaultTest, ForeignSchemasAreNotCarriedOut) {
  const std::string none = " is no table of this history: ";
  const std::pair<std::string, std::string> rows[] = {
      {"CREATE TRIGGER t AFTER INSERT ON snapshots BEGIN INSERT INTO hidden_drains " + endless +
           "SELECT new.id, 'x', i, 0 FROM n; END;",
       ""},
      {"DROP TABLE snapshots; CREATE VIEW snapshots AS " + endless +
           "SELECT i AS id, i AS timestamp, 1 AS total_watts FROM n;",
       "snapshots" + none + "it is a view"},
      {"ALTER TABLE process_samples ADD COLUMN c TEXT AS (hex(zeroblob(9999999)));",
       "process_samples" + none + "its column c is computed"}};
  for (const auto& [change, message] : rows) {
    removeDatabase();
    store(wholeSnapshots(start, 1));
    ASSERT_EQ(runCommand(fmt::format("sqlite3 {} <{}", path, folder.write("change", change))).output, "");
    for (const char* command : {"history latest", "show", "import"}) {
      const CommandResult result = run(command);
      EXPECT_EQ(result, message.empty() ? (CommandResult{0, result.output}) : failure(message)) << command;
    }
  }
}

TEST_F(StoreFaultTest, AnEndlessStatementEndsWhenItIsWantedTo) {
  Database database(folder / "h.sqlite", Database::Access::readWriteCreate);
  int looks = 0;
  database.interruptWhen([&] { return ++looks > 3; });
  const auto before = std::chrono::steady_clock::now();
  const std::string count = endless + "SELECT COUNT(*) FROM n;";
  EXPECT_STREQ(thrownBy<SnapshotStoreError>([&] { database.execute(count.c_str()); }).what(), "interrupted");
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds(2)) << "what is sound gets done";
  EXPECT_THROW(text(database, "SELECT zeroblob(20000000);"), SnapshotStoreError) << "a value without end";
}

TEST_F(StoreFaultTest, WhatIsStoredReachesTheFileOfThatName) {
  const std::string other = folder / "other.sqlite", copy = folder / "copy.sqlite",
                    sql = fmt::format("sqlite3 {} 'PRAGMA foreign_keys = OFF; ", path);
  SQLiteSnapshotStore(other, Mode::readWriteCreate).insert(wholeSnapshot(start));
  // What happens, how much is kept of what was stored before, and what the log says of it.
  const std::tuple<std::string, std::size_t, std::string> rows[] = {
      {"rm -r " + disk, 0, fmt::format("[SnapshotStore] {} was removed or replaced: opening it anew", path)},
      {fmt::format("cp {} {}; mv {} {}", other, copy, copy, path), 1, "was removed or replaced"},
      {fmt::format("rm {}-wal", path), 1, "was removed or replaced"},
      {sql + "DROP TABLE hidden_drains; DROP TABLE estimate_tracking'", 1,
       "lost its tables: making them anew"},
      {sql + "DROP TABLE snapshots; DROP TABLE schema_metadata'", 0, "lost its tables"},
      {sql + "UPDATE schema_metadata SET value = 4'", 0, "lost its tables"}};
  for (const auto& [happens, kept, log] : rows) {
    removeDatabase();
    SQLiteSnapshotStore store(path, Mode::readWriteCreate);
    store.insert(wholeSnapshot(start));
    ASSERT_EQ(runCommand(fmt::format("sqlite3 {} 'PRAGMA wal_checkpoint(TRUNCATE)' && {}", path, happens)),
              (CommandResult{0, "0|0|0\n"}));
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(store.insert(wholeSnapshot(start + 60)), inserted) << happens;
    EXPECT_EQ(store.insert(EstimateTrackingEstimateInput{}), 1) << happens;
    EXPECT_THAT(::testing::internal::GetCapturedStderr(), ::testing::HasSubstr(log)) << happens;
    const Snapshots stored = soundContent(path);
    ASSERT_EQ(stored.size(), kept + 1) << happens;
    EXPECT_EQ(stored.back().timestamp.secondsSince1970(), start + 60) << happens;
  }
}

TEST_F(StoreFaultTest, AFileThatIsReplacedMeanwhileIsFollowedForAWhile) {
  DrainSnapshot large = wholeSnapshot(start);
  for (int pid = 21; pid < 5000; ++pid) large.processes.push_back(makeNamedDrain(pid, "p", 0.01));
  SQLiteSnapshotStore store(path, Mode::readWriteCreate);
  int replacements = 1;
  store.interruptWhen([&] {  // called while rows are written
    if (replacements-- > 0) removeDatabase();
    return false;
  });
  EXPECT_EQ(store.insert(large), inserted);
  EXPECT_EQ(soundContent(path).size(), 1U);
  replacements = 1000;
  large.timestamp = large.timestamp + 60;
  EXPECT_STREQ(thrownBy<SnapshotStoreError>([&] { store.insert(large); }).what(),
               "The database is replaced again and again");
}

TEST_F(StoreFaultTest, AnotherSchemaVersionCostsTheSnapshotsOnly) {
  for (const std::string version : {"4", "6", "abc", " 5", "", "5.0", "05"}) {
    SCOPED_TRACE(version);
    const bool isCurrent = version == "05";
    removeDatabase();
    store(wholeSnapshots(start, 1));
    SQLiteSnapshotStore(path, Mode::readWriteCreate).insert(EstimateTrackingEstimateInput{});
    Database database(path, Database::Access::readWriteCreate);
    database.execute(fmt::format("UPDATE schema_metadata SET value = '{}';", version).c_str());
    EXPECT_EQ(soundContent(path).size(), 1U) << "altered by reading";
    EXPECT_EQ(SQLiteSnapshotStore(path, Mode::readWriteCreate).fetchEstimateRows(5).size(), 1U);
    EXPECT_EQ(soundContent(path).size(), isCurrent ? 1U : 0U);
    EXPECT_EQ(text(database, "SELECT value FROM schema_metadata;"), isCurrent ? version : "5");
  }
}

TEST_F(StoreFaultTest, RootAndUsersShareTheDatabaseWhoeverComesFirst) {
  if (runCommand(asUser + program + "--version").status != 0)
    GTEST_SKIP() << "this user can't start programs as another one";
  const ScopedEnvironment environment({{"QZL_SHARED_DIRECTORY", disk}});
  std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
  const std::string shared = SQLiteSnapshotStoreLocation::sharedSnapshotDatabaseURL();
  for (const std::string& first : {std::string(), asUser}) {
    removeDatabase();
    ASSERT_EQ(runCommand("mkdir -m 777 " + disk).status, 0);
    double time = start;
    const auto import = [&](const std::string& as) {
      const std::string command = StoreFaultTest::import(shared, wholeSnapshots(time += 10, 1));
      EXPECT_EQ(runCommand(fmt::format("umask 077; {} {}", as, command)), (CommandResult{0, "inserted\n"}));
    };
    import(first);
    import(first.empty() ? asUser : "");
    const mode_t before = ::umask(077);
    SQLiteSnapshotStore store(shared, Mode::readWriteCreate);  // keeps the log and its index in place
    store.insert(wholeSnapshot(time += 10));
    ::umask(before);
    EXPECT_EQ(modeOf(std::filesystem::path(shared).parent_path()), 0777U);
    for (const char* suffix : databaseFiles) EXPECT_EQ(modeOf(shared + suffix), 0666U) << suffix;
    import(asUser);
    EXPECT_EQ(runCommand(asUser + program + "history export").output, linesOf(wholeSnapshots(start + 10, 4)));
  }
}

// Closing any descriptor of a file gives up the process's locks on it, and another one could then switch the
// journal mode.
TEST_F(StoreFaultTest, SettingModesKeepsSQLitesLocks) {
  const ScopedEnvironment environment({{"QZL_SHARED_DIRECTORY", folder.path().string()}});
  SQLiteSnapshotStore store(path, Mode::readWriteCreate);
  for (const std::string& file : {disk, path, path + "-wal", path + "-shm"})
    ASSERT_EQ(::chmod(file.c_str(), 0700), 0);
  store.insert(wholeSnapshot(start));
  EXPECT_EQ(modeOf(disk), 0777U);
  for (const char* suffix : databaseFiles) EXPECT_EQ(modeOf(path + suffix), 0666U) << suffix;
  EXPECT_THAT(runCommand(fmt::format("sqlite3 {} 'PRAGMA journal_mode = DELETE'", path)).output,
              ::testing::HasSubstr("database is locked"));
}

}  // namespace
}  // namespace quenzel
