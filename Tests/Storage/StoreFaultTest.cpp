#include <chrono>
#include <cmath>
#include <csignal>
#include <functional>
#include <future>
#include <random>
#include <regex>

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
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
using fmt::format;
using Mode = SQLiteSnapshotStore::Mode;
using testing::CommandResult;
using ::testing::ContainsRegex;
using testing::modeOf;
using testing::runCommand;
using testing::ScopedEnvironment;
using testing::TemporaryDirectory;
using Snapshots = std::vector<DrainSnapshot>;
using namespace std::string_literals;
using Texts = std::vector<std::string>;

constexpr double start = 1'700'000'000;
const std::string program = QUENZEL_BINARY_DIRECTORY "/quenzel ";
const std::string asUser = "setpriv --reuid 65534 --regid 65534 --clear-groups ", withMounts = "unshare -rm ";
const char* const databaseFiles[] = {"", "-wal", "-shm"};
const std::string unableToOpen = "unable to open database file";

bool canMount() { return runCommand(withMounts + "mount -t tmpfs none /mnt").status == 0; }
bool canBeAnotherUser() { return runCommand(asUser + program + "--version").status == 0; }

/// Snapshots with rows in every table, as they read back.
Snapshots wholeSnapshots(double first, int count, double step = 10) {
  Snapshots snapshots;
  for (int index = 0; index < count; ++index) {
    DrainSnapshot& snapshot = snapshots.emplace_back(makeSnapshot(first + index * step, 10));
    for (int pid = 1; pid <= 20; ++pid) {
      ProcessDrain row = makeProcessDrain(pid, format("p{}", pid), 1.0 / pid, {"a", "b"});
      row.displayName = row.canonicalName = row.processGroupKey = row.name;
      snapshot.processes.push_back(row);
    }
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
        format("{}-{}", snapshots.front().timestamp.secondsSince1970(), snapshots.size());
    return format("{} history import --database {} {}", program, database,
                  folder.write(file, linesOf(snapshots)));
  }
  void removeDatabase() const { std::filesystem::remove_all(disk); }
  /// A first import where there is too little space, and a second one when there is more.
  void expectRecovery(const std::string& shell, const std::string& limit, const std::string& relief) const {
    const Snapshots first = wholeSnapshots(start, 100), second = wholeSnapshots(start + 5000, 5);
    const CommandResult result = runCommand(format(
        "{} sh -c '({}; exec {}); echo {}; {} && {} && {} history export --database {} >{}'", shell, limit,
        import(path, first), "$?", relief, import(path, second), program, path, folder / "exported"));
    EXPECT_THAT(result.output,
                ContainsRegex("^(inserted\n)+(error: (database or disk is full|disk I/O error)\n)+"
                              "1\n(inserted\n){5}$"));
    const Snapshots kept(first.begin(), first.begin() + insertedIn(result.output) - 5);
    EXPECT_TRUE(folder.read("exported") == linesOf(kept) + linesOf(second));
  }

  TemporaryDirectory folder;
  const std::string disk = folder / "disk", path = disk + "/h.sqlite";
};

// Every outcome that is printed stands for a committed snapshot. The check leaves the killed process's log
// for the next one to recover.
TEST_F(StoreFaultTest, KilledProcessLosesNothingAcknowledged) {
  constexpr int batch = 30, kills = 50;
  const auto seed = std::random_device{}();
  std::mt19937 random(seed);
  const auto before = std::chrono::steady_clock::now();
  ASSERT_EQ(runCommand(import(path, wholeSnapshots(start, batch))).status, 0);
  const std::chrono::duration<double> whole = std::chrono::steady_clock::now() - before;
  const auto isKilled = [&](const std::string& command, double delay) {
    folder.write("told", "");  // it may be killed before it comes to that itself
    return runCommand(
               format("{} >{} & sleep {:.4f}; kill -9 $! 2>&-; wait $!", command, folder / "told", delay))
               .status == 128 + SIGKILL;
  };
  Snapshots expected;
  int killed = 0;
  for (int round = 0; killed < kills && round < 3 * kills && !HasFailure(); ++round) {
    const double delay = whole.count() * std::pow(std::uniform_real_distribution<double>(0, 1)(random), 2);
    SCOPED_TRACE(format("seed {}, round {}, killed after {} s", seed, round, delay));
    if (round % 8 == 0) {
      removeDatabase();
      expected.clear();
    }
    const bool isPurge = round % 8 == 7;
    const PointInTime cutoff = expected.empty() ? PointInTime{} : expected[expected.size() / 2].timestamp;
    const Snapshots offered = wholeSnapshots(start + 1000 * (round + 1), batch);
    killed += isKilled(isPurge ? format("{} history purge --database {} --older-than {}", program, path,
                                        cutoff.secondsSince1970())
                               : import(path, offered),
                       delay);
    const Snapshots stored = soundContent(path);
    const int told = insertedIn(folder.read("told")),
              added = static_cast<int>(stored.size() - expected.size());
    if (!isPurge) {
      ASSERT_TRUE(added <= batch && (added == told || added == told + 1)) << added << ", told " << told;
      expected.insert(expected.end(), offered.begin(), offered.begin() + added);
    } else if (added < 0) {
      std::erase_if(expected, [&](const auto& snapshot) { return snapshot.timestamp < cutoff; });
    }
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
    const CommandResult latest = runCommand(program + "history latest --limit 5 --database " + path);
    ASSERT_EQ(latest.status, 0) << latest.output;
    for (const auto& json : nlohmann::json::parse(latest.output)) {
      const DrainSnapshot seen = decodeDrainSnapshot(json, {});
      EXPECT_TRUE(seen == wholeSnapshot(seen.timestamp.secondsSince1970())) << json;
    }
    const CommandResult details = runCommand(program + "history details --database " + path);
    EXPECT_EQ(details.status, 0) << details.output;
  } while (written.wait_for(std::chrono::seconds(0)) != std::future_status::ready);
  const CommandResult result = written.get();
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_TRUE(soundContent(path) == wholeSnapshots(start - 5, 2 * count + 1, 5));
}

TEST_F(StoreFaultTest, LackOfSpaceFailsTheInsertAlone) {
  expectRecovery("", "ulimit -f 400", ":");
  EXPECT_FALSE(soundContent(path).empty());
  if (!canMount()) GTEST_SKIP() << "no file system can be mounted here";
  expectRecovery(withMounts, "mount -t tmpfs -o size=400k none " + disk, "mount -o remount,size=10m " + disk);
}

TEST_F(StoreFaultTest, ReadOnlyDiskIsOneClearLine) {
  if (!canMount()) GTEST_SKIP() << "no file system can be mounted here";
  std::filesystem::create_directory(disk);
  const Snapshots one = wholeSnapshots(start, 1);
  const struct {
    std::string command, file, message;
  } rows[] = {
      {"history latest", "/h.sqlite", unableToOpen},
      {"history purge --older-than 1", "/h.sqlite", unableToOpen},
      {"estimates list", "/h.sqlite", unableToOpen},
      {"history import", "/h.sqlite", unableToOpen},
      {"history import", "/n", format("Can't create the file {}/n: Read-only file system", disk)},
      {"history import", "/s/n", format("Can't create the folder {}/s: Read-only file system", disk)}};
  std::string script =
      format("mount -t tmpfs none {0}; {1}; mount -o remount,ro {0}; ls {0}", disk, import(path, one));
  std::string expected = "inserted\nh.sqlite\n";
  for (const auto& row : rows) {
    script +=
        format("; {} {} --database {}{} </dev/null; echo {}", program, row.command, disk, row.file, "$?");
    expected += format("quenzel: {}{}: {}\n1\n", disk, row.file, row.message);
  }
  EXPECT_EQ(runCommand(format("{} sh -c '{}'", withMounts, script)), (CommandResult{0, expected}));
}

TEST_F(StoreFaultTest, DamagedFileIsReported) {
  store(wholeSnapshots(start, 9));
  const std::string bytes = folder.read("disk/h.sqlite"), garbage(9000, '\xA5');
  const auto with = [&](std::size_t from, std::size_t to) {
    return bytes.substr(0, from) + std::string(to - from, '\xA5') + bytes.substr(to);
  };
  constexpr std::size_t page = 4096;
  const std::size_t middle = bytes.size() / 2 / page * page;
  const std::string malformed = "database disk image is malformed", foreign = "file is not a database";
  const std::string database = format(" --database {} ", path);
  const Texts commands = {program + "history latest" + database, program + "history details" + database,
                          program + "estimates list" + database,
                          import(path, wholeSnapshots(start + 5000, 1)),
                          program + "history purge" + database + "--older-than 1700000015"};
  const struct {
    const char* name;
    std::string content, log, message;
    int fewest, most;
  } rows[] = {{"cut in the header", bytes.substr(0, 60), "", malformed, 5, 5},
              {"cut behind it", bytes.substr(0, 100), "", malformed, 5, 5},
              {"cut in a page", bytes.substr(0, middle + 77), "", malformed, 5, 5},
              {"of another kind", "hello", "", foreign, 5, 5},
              {"header overwritten", with(0, 100), "", foreign, 5, 5},
              {"first page overwritten", with(100, page), "", malformed, 5, 5},
              {"all other pages overwritten", with(page, bytes.size()), "", malformed, 5, 5},
              {"one page overwritten", with(middle, middle + page), "", malformed, 1, 5},
              {"log overwritten", bytes, garbage, "", 0, 0}};
  for (const auto& row : rows) {
    int failures = 0;
    for (const std::string& command : commands) {
      removeDatabase();
      folder.write("disk/h.sqlite", row.content);
      folder.write("disk/h.sqlite-wal", row.log);
      const CommandResult result = runCommand(command);
      if (result.status == 0) continue;
      ++failures;
      EXPECT_EQ(result.status, 1) << row.name;
      EXPECT_THAT(result.output, ContainsRegex(format("^(quenzel: {}|error): {}\n$", path, row.message)))
          << row.name;
    }
    EXPECT_TRUE(failures >= row.fewest && failures <= row.most) << row.name << ": " << failures;
  }
}

TEST_F(StoreFaultTest, OnlyFilesAreDatabases) {
  const std::string line = folder.write("line", linesOf(wholeSnapshots(start, 1))),
                    odd = "Not a regular file";
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  const struct {
    std::string path, reading, writing;
  } rows[] = {{folder.path(), unableToOpen, unableToOpen},
              {folder / "fifo", odd, odd},
              {"/dev/null", odd, odd},
              {folder / "missing", unableToOpen, ""},
              {line + "/h", unableToOpen, format("Can't create the folder {}: File exists", line)}};
  const auto failure = [](const auto& row, const std::string& why) {
    return CommandResult{1, format("quenzel: {}: {}\n", row.path, why)};
  };
  for (const auto& row : rows) {
    for (const char* reading : {"history latest", "estimates list"})
      EXPECT_EQ(runCommand(format("{} {} --database {}", program, reading, row.path)),
                failure(row, row.reading));
    EXPECT_EQ(runCommand(format("{} history import --database {} {}", program, row.path, line)),
              row.writing.empty() ? (CommandResult{0, "inserted\n"}) : failure(row, row.writing));
  }
  // A name that SQLite by itself takes for a database in memory.
  EXPECT_EQ(runCommand(format("cd {} && {} history import --database :memory: {}", folder.path().string(),
                              program, line))
                .status,
            0);
  EXPECT_EQ(soundContent(folder / ":memory:").size(), 1U);
  if (!canBeAnotherUser()) GTEST_SKIP() << "this user can't start programs as another one";
  std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
  ASSERT_EQ(::chmod((folder / "missing").c_str(), 0600), 0);
  for (const char* command : {"latest", "import"})
    EXPECT_EQ(runCommand(format("{} {} history {} --database {} </dev/null", asUser, program, command,
                                folder / "missing")),
              (CommandResult{1, format("quenzel: {}: {}\n", folder / "missing", unableToOpen)}));
}

// What any user may do in a folder that is open to all, to whoever opens the history there next.
TEST_F(StoreFaultTest, PlantedFilesAreRefused) {
  using Plant = void (*)(const std::filesystem::path& victim, const std::filesystem::path& name);
  const Plant symbolicLink = [](const auto& victim, const auto& name) {
    std::filesystem::create_symlink(victim, name);
  };
  const Plant hardLink = [](const auto& victim, const auto& name) {
    std::filesystem::create_hard_link(victim, name);
  };
  const Plant fifo = [](const auto&, const auto& name) { ::mkfifo(name.c_str(), 0666); };
  const struct {
    const char* suffix;
    Plant plant;
    std::string message;
  } rows[] = {{"", symbolicLink, "Symbolic links are refused"},
              {"", hardLink, "Files with a second hard link are refused"},
              {"", fifo, "Not a regular file"},
              {"-journal", symbolicLink, "Symbolic links are refused"},
              {"-journal", fifo, "Not a regular file"},
              {"-wal", hardLink, "Files with a second hard link are refused"},
              {"-shm", fifo, "Not a regular file"},
              {"-shm", hardLink, "Files with a second hard link are refused"}};
  const std::string victim = folder / "victim", other = folder / "other.sqlite";
  SQLiteSnapshotStore(other, Mode::readWriteCreate).insert(wholeSnapshot(start));
  const std::string content = folder.read("other.sqlite");
  for (const auto& row : rows) {
    removeDatabase();
    store(wholeSnapshots(start, 1));
    folder.write("victim", content);
    std::filesystem::remove(path + row.suffix);
    row.plant(victim, path + row.suffix);
    const std::string where = *row.suffix == '\0' ? "" : format(": {}{}", path, row.suffix);
    for (const std::string& command :
         {program + "history latest --database " + path, import(path, wholeSnapshots(start + 50, 1))}) {
      EXPECT_EQ(runCommand("timeout 20 " + command),
                (CommandResult{1, format("quenzel: {}: {}{}\n", path, row.message, where)}));
    }
    EXPECT_EQ(folder.read("victim"), content) << row.suffix;
  }
}

TEST_F(StoreFaultTest, FoldersAreReachedOverTrustedLinksOnly) {
  const std::string link = folder / "link";
  std::filesystem::create_directory(disk);
  std::filesystem::create_symlink("disk/.", link);
  EXPECT_EQ(DatabaseFiles(link + "/../link/h.sqlite").path(), path);
  SQLiteSnapshotStore(link + "/h.sqlite", Mode::readWriteCreate).insert(wholeSnapshot(start));
  EXPECT_EQ(soundContent(path).size(), 1U);
  const uid_t stranger = 54321;
  if (::geteuid() == 0) {
    ASSERT_EQ(::lchown(link.c_str(), stranger - 1, stranger - 1), 0);
  }
  try {
    const DatabaseFiles files(link + "/h.sqlite", stranger);
    ADD_FAILURE() << files.path();
  } catch (const SnapshotStoreError& error) {
    EXPECT_EQ(error.what(), format("The symbolic link {} of another user is not followed", link));
  }
}

/// A rollback journal of a transaction that was cut short, which names a super-journal.
std::string hotJournal(const std::string& superJournal, unsigned pages) {
  const auto number = [](unsigned value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift & 0xFF);
    return bytes;
  };
  const std::string magic = "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7";
  unsigned sum = 0;
  for (const char byte : superJournal) sum += static_cast<unsigned char>(byte);
  std::string journal = magic + number(0) + number(0) + number(pages) + number(512) + number(4096);
  journal.resize(512);
  return journal + number(0x40000000 / 4096 + 1) + superJournal +
         number(static_cast<unsigned>(superJournal.size())) + number(sum) + magic;
}

TEST_F(StoreFaultTest, NoJournalHasAnotherFileDeleted) {
  store(wholeSnapshots(start, 1));
  const std::string victim = folder.write("victim", "precious");
  folder.write("disk/h.sqlite-journal",
               hotJournal(victim, static_cast<unsigned>(std::filesystem::file_size(path) / 4096)));
  EXPECT_EQ(runCommand(import(path, wholeSnapshots(start + 50, 1))), (CommandResult{0, "inserted\n"}));
  EXPECT_EQ(folder.read("victim"), "precious");
  EXPECT_EQ(soundContent(path).size(), 2U);
}

TEST_F(StoreFaultTest, ForeignSchemasAreNotCarriedOut) {
  const std::string endless = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) ";
  const struct {
    std::string change, reading, writing;
  } rows[] = {{"CREATE TRIGGER t AFTER INSERT ON snapshots BEGIN INSERT INTO hidden_drains " + endless +
                   "SELECT new.id, 'x', i, 0 FROM n; END;",
               "", "inserted\n"},
              {"DROP TABLE snapshots; CREATE VIEW snapshots AS " + endless +
                   "SELECT i AS id, i AS timestamp, 1 AS total_watts FROM n;",
               "snapshots is no table of this history: it is a view\n",
               "snapshots is no table of this history: it is a view\n"},
              {"ALTER TABLE process_samples ADD COLUMN c TEXT AS (hex(zeroblob(9999999)));",
               "process_samples is no table of this history: its column c is computed\n",
               "process_samples is no table of this history: its column c is computed\n"}};
  for (const auto& row : rows) {
    removeDatabase();
    store(wholeSnapshots(start, 1));
    ASSERT_EQ(
        runCommand(format("sqlite3 {} '{}'", path, std::regex_replace(row.change, std::regex("'"), "'\\''")))
            .output,
        "");
    for (const char* command : {"history latest", "show"}) {
      const CommandResult read = runCommand(format("timeout 20 {} {} --database {}", program, command, path));
      if (row.reading.empty()) {
        EXPECT_EQ(read.status, 0) << read.output;
      } else {
        EXPECT_EQ(read, (CommandResult{1, format("quenzel: {}: {}", path, row.reading)}));
      }
    }
    EXPECT_THAT(runCommand("timeout 20 " + import(path, wholeSnapshots(start + 50, 1))).output,
                ::testing::EndsWith(row.writing));
  }
}

TEST_F(StoreFaultTest, AnEndlessStatementEndsWhenItIsWantedTo) {
  Database database(folder / "h.sqlite", Database::Access::readWriteCreate);
  bool isEndWanted = false;
  int looks = 0;
  database.interruptWhen([&] {
    isEndWanted |= ++looks > 3;
    return isEndWanted;
  });
  const auto before = std::chrono::steady_clock::now();
  EXPECT_STREQ(thrownBy<SnapshotStoreError>([&] {
                 database.execute(
                     "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) "
                     "SELECT COUNT(*) FROM n;");
               }).what(),
               "interrupted");
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds(2)) << "what is sound gets done";
  EXPECT_THROW(text(database, "SELECT zeroblob(20000000);"), SnapshotStoreError) << "a value without end";
}

TEST_F(StoreFaultTest, WhatIsStoredReachesTheFileOfThatName) {
  const std::string other = folder / "other.sqlite";
  SQLiteSnapshotStore(other, Mode::readWriteCreate).insert(wholeSnapshot(start));
  const auto drop = [&](const char* sql) { Database(path, Database::Access::readWriteCreate).execute(sql); };
  const struct {
    const char* what;
    std::function<void()> happens;
    std::size_t kept;  ///< of what was stored before
    const char* log;
  } rows[] = {
      {"nothing", [] {}, 1, ""},
      {"removed", [&] { removeDatabase(); }, 0, "was removed or replaced: opening it anew"},
      {"replaced",
       [&] {
         removeDatabase();
         std::filesystem::create_directory(disk);
         std::filesystem::copy_file(other, path);
       },
       1, "was removed or replaced: opening it anew"},
      {"log removed", [&] { std::filesystem::remove(path + "-wal"); }, 1, "was removed or replaced"},
      {"all tables dropped",
       [&] {
         drop(
             "PRAGMA foreign_keys = OFF; DROP TABLE snapshots; DROP TABLE process_samples; DROP TABLE "
             "estimate_tracking; DROP TABLE schema_metadata;");
       },
       0, "lost its tables: making them anew"},
      {"one table dropped", [&] { drop("DROP TABLE hidden_drains;"); }, 1, "lost its tables"},
      {"of another version", [&] { drop("UPDATE schema_metadata SET value = '4';"); }, 0, "lost its tables"}};
  for (const auto& row : rows) {
    removeDatabase();
    SQLiteSnapshotStore store(path, Mode::readWriteCreate);
    store.insert(wholeSnapshot(start));
    drop("PRAGMA wal_checkpoint(TRUNCATE);");
    row.happens();
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(store.insert(wholeSnapshot(start + 60)), inserted) << row.what;
    EXPECT_EQ(store.insert(EstimateTrackingEstimateInput{}), 1) << row.what;
    EXPECT_THAT(::testing::internal::GetCapturedStderr(), ::testing::HasSubstr(row.log)) << row.what;
    const SQLiteSnapshotStore reader(path, Mode::readOnly);
    EXPECT_EQ(reader.fetchLatest(9).size(), row.kept + 1) << row.what;
    EXPECT_EQ(reader.fetchLatest(1).front().timestamp.secondsSince1970(), start + 60) << row.what;
  }
}

TEST_F(StoreFaultTest, EveryCommandFindsTheUsersOwnHistory) {
  const std::string environment =
      format("QZL_SHARED_DIRECTORY={} XDG_DATA_HOME={} ", folder.write("file", "") + "/x", folder / "data");
  const std::string line = folder.write("line", linesOf(wholeSnapshots(start, 1)));
  EXPECT_EQ(runCommand(environment + program + "history import " + line), (CommandResult{0, "inserted\n"}));
  EXPECT_EQ(runCommand(environment + program + "history export").output, folder.read("line"));
  EXPECT_EQ(runCommand(environment + program + "show").status, 0);
  const std::string own = folder / "data/Quenzel/battery_history.sqlite";
  EXPECT_EQ(soundContent(own).size(), 1U);
  EXPECT_THAT(runCommand(environment + program + "record --help").output, ::testing::HasSubstr(own));
}

TEST_F(StoreFaultTest, AnotherSchemaVersionCostsTheSnapshotsOnly) {
  const char* const set = "UPDATE schema_metadata SET value = ";
  const struct {
    std::string change;
    std::size_t kept;
  } rows[] = {
      {set + "'4'"s, 0}, {set + "'6'"s, 0},   {set + "'abc'"s, 0}, {set + "' 5'"s, 0},
      {set + "''"s, 0},  {set + "'5.0'"s, 0}, {set + "'05'"s, 1},  {"DELETE FROM schema_metadata", 0}};
  constexpr const char* selectVersion = "SELECT value FROM schema_metadata;";
  for (const auto& row : rows) {
    removeDatabase();
    store(wholeSnapshots(start, 1));
    SQLiteSnapshotStore(path, Mode::readWriteCreate).insert(EstimateTrackingEstimateInput{});
    Database database(path, Database::Access::readWriteCreate);
    database.execute(row.change.c_str());
    const std::string version = text(database, selectVersion);
    EXPECT_EQ(soundContent(path).size(), 1U) << row.change;
    EXPECT_EQ(text(database, selectVersion), version) << "altered by reading";
    SQLiteSnapshotStore store(path, Mode::readWriteCreate);
    EXPECT_EQ(soundContent(path).size(), row.kept) << row.change;
    EXPECT_EQ(store.fetchEstimateRows(5).size(), 1U) << row.change;
    EXPECT_EQ(text(database, selectVersion), row.kept == 1 ? version : "5");
  }
}

TEST_F(StoreFaultTest, RootAndUsersShareTheDatabaseWhoeverComesFirst) {
  if (!canBeAnotherUser()) GTEST_SKIP() << "this user can't start programs as another one";
  const ScopedEnvironment environment({{"QZL_SHARED_DIRECTORY", disk}});
  std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
  const std::string shared = SQLiteSnapshotStoreLocation::sharedSnapshotDatabaseURL();
  const CommandResult success{0, "inserted\n"};
  for (const std::string& first : {std::string(), asUser}) {
    removeDatabase();
    std::filesystem::create_directory(disk);
    std::filesystem::permissions(disk, std::filesystem::perms(0777));
    double time = start;
    const auto importing = [&](const std::string& as) {
      return runCommand(format("umask 077; {} {}", as, import(shared, wholeSnapshots(time += 10, 1))));
    };
    EXPECT_EQ(importing(first), success);
    EXPECT_EQ(importing(first.empty() ? asUser : ""), success);
    const mode_t before = ::umask(077);
    SQLiteSnapshotStore store(shared, Mode::readWriteCreate);  // keeps the log and its index in place
    store.insert(wholeSnapshot(time += 10));
    ::umask(before);
    EXPECT_EQ(modeOf(std::filesystem::path(shared).parent_path()), 0777U);
    for (const char* suffix : databaseFiles) EXPECT_EQ(modeOf(shared + suffix), 0666U) << suffix;
    EXPECT_EQ(importing(asUser), success);
    const CommandResult seen = runCommand(asUser + program + "history export");
    EXPECT_EQ(seen, (CommandResult{0, linesOf(wholeSnapshots(start + 10, 4))}));
  }
}

/// Whether this process has locked the bytes of the file by which SQLite knows that a database is in use
/// (SHARED_FIRST and SHARED_SIZE of its os.h); a process does not see its own locks, so a child looks.
bool isLocked(const std::string& path) {
  const pid_t child = ::fork();
  if (child == 0) {
    struct flock lock = {
        .l_type = F_WRLCK, .l_whence = SEEK_SET, .l_start = 0x40000002, .l_len = 510, .l_pid = 0};
    ::_exit(::fcntl(::open(path.c_str(), O_RDWR | O_CLOEXEC), F_GETLK, &lock) == 0 && lock.l_type == F_RDLCK
                ? 1
                : 0);
  }
  int status = 0;
  return ::waitpid(child, &status, 0) == child && status != 0;
}

// Closing any descriptor of a file gives up the process's locks on it.
TEST_F(StoreFaultTest, SettingModesKeepsSQLitesLocks) {
  const ScopedEnvironment environment({{"QZL_SHARED_DIRECTORY", folder.path().string()}});
  SQLiteSnapshotStore store(path, Mode::readWriteCreate);
  for (const char* suffix : databaseFiles) ASSERT_EQ(::chmod((path + suffix).c_str(), 0600), 0);
  store.insert(wholeSnapshot(start));
  for (const char* suffix : databaseFiles) EXPECT_EQ(modeOf(path + suffix), 0666U) << suffix;
  EXPECT_TRUE(isLocked(path));
}

TEST_F(StoreFaultTest, ClockMayJump) {
  SQLiteSnapshotStore store(path, Mode::readWriteCreate);
  const struct {
    double hours;
    SnapshotInsertOutcome outcome;
  } rows[] = {
      {0, inserted}, {4, inserted}, {4, replacedNearDuplicate}, {1, inserted}, {4, replacedNearDuplicate},
      {-1, inserted}};
  for (const auto& row : rows) EXPECT_EQ(store.insert(wholeSnapshot(start + row.hours * 3600)), row.outcome);
  Snapshots expected;
  for (const int hours : {-1, 0, 1, 4}) expected.push_back(wholeSnapshot(start + hours * 3600));
  EXPECT_TRUE(store.fetchLatest(9) == expected);
  EXPECT_DOUBLE_EQ(store.fetchEnergyUsageSummary(9).totalWh, 0.5) << "three minutes at 10 W";
}

}  // namespace
}  // namespace quenzel
