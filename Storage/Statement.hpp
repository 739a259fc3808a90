#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

struct sqlite3_stmt;

namespace quenzel {

/// One use of a statement that a Database has prepared: values go in by position, rows come out, and the end
/// of the scope resets it for the next use, whatever happened in between.
///
///     Statement insert = database.prepared("INSERT INTO hidden_drains (...) VALUES (?, ?, ?, ?);");
///     for (const HiddenDrain& hidden : snapshot.hidden)
///       insert.run(snapshotID, rawValue(hidden.kind), hidden.identifier, hidden.drainW);
///
///     Statement rows = database.prepared("SELECT id, timestamp FROM snapshots WHERE timestamp >= ?;");
///     rows.bind(cutoff);
///     while (rows.next()) {
///       const auto [id, timestamp] = rows.row<std::int64_t, double>();
///
/// Values are numbers, booleans (stored as 0 and 1), UTF-8 text and optionals of them (absent: NULL). Text is
/// not copied: it must live until the rows are read. A double that is no number is stored as NULL.
///
/// Used under the lock of the database's owner, and never longer than the database lives. Every operation
/// that can fail throws SnapshotStoreError.
class Statement {
 public:
  Statement(Statement&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Statement& operator=(Statement&&) = delete;
  ~Statement();

  /// Sets the parameters from the first on.
  template <typename... Values>
  void bind(const Values&... values) {
    int parameter = 0;
    (bindOne(++parameter, values), ...);
  }

  /// Goes to the next row; false after the last one.
  bool next();

  /// Forgets the rows that are left, to bind anew.
  void reset() noexcept;

  /// Carries out a statement that yields no rows, and resets it.
  template <typename... Values>
  void run(const Values&... values) {
    bind(values...);
    complete();
  }

  /// A column of the current row, from 0. An optional is absent where the column is NULL; without one, NULL
  /// reads as 0 or as the empty text. A view lasts until the next row.
  template <typename T>
  T column(int index) const {
    T value{};
    read(index, value);
    return value;
  }

  /// The current row's first columns.
  template <typename... Types>
  std::tuple<Types...> row() const {
    return columns<Types...>(std::index_sequence_for<Types...>{});
  }

 private:
  friend class Database;
  explicit Statement(sqlite3_stmt* handle) : handle_(handle) {}

  void bindOne(int parameter, std::int64_t value);
  void bindOne(int parameter, std::int32_t value) { bindOne(parameter, std::int64_t{value}); }
  void bindOne(int parameter, bool value) { bindOne(parameter, std::int64_t{value ? 1 : 0}); }
  void bindOne(int parameter, double value);
  void bindOne(int parameter, std::string_view value);
  void bindOne(int parameter, const std::string& value) { bindOne(parameter, std::string_view(value)); }
  void bindOne(int parameter, const char* value) { bindOne(parameter, std::string_view(value)); }
  void bindOne(int parameter, std::nullopt_t value);
  template <typename T>
  void bindOne(int parameter, const std::optional<T>& value) {
    value ? bindOne(parameter, *value) : bindOne(parameter, std::nullopt);
  }
  void check(int result) const;
  void complete();

  template <typename... Types, std::size_t... Indices>
  std::tuple<Types...> columns(std::index_sequence<Indices...>) const {
    return {column<Types>(static_cast<int>(Indices))...};
  }
  bool isNull(int index) const;
  void read(int index, std::int64_t& value) const;
  void read(int index, bool& value) const;
  void read(int index, double& value) const;
  void read(int index, std::string_view& value) const;
  void read(int index, std::string& value) const;
  template <typename T>
  void read(int index, std::optional<T>& value) const {
    if (!isNull(index)) read(index, value.emplace());
  }

  sqlite3_stmt* handle_;  ///< the database's
};

}  // namespace quenzel
