#include "Storage/Statement.hpp"

#include <sqlite3.h>

#include "Storage/SnapshotStoreError.hpp"

namespace quenzel {

Statement::~Statement() {
  if (handle_ == nullptr) return;
  reset();
  sqlite3_clear_bindings(handle_);  // they may point to text that ends with this scope
}

void Statement::check(int result) const {
  if (result != SQLITE_OK) throw SnapshotStoreError::ofConnection(sqlite3_db_handle(handle_));
}

void Statement::bindOne(int parameter, std::int64_t value) {
  check(sqlite3_bind_int64(handle_, parameter, value));
}

void Statement::bindOne(int parameter, double value) {
  check(sqlite3_bind_double(handle_, parameter, value));
}

void Statement::bindOne(int parameter, std::string_view value) {
  const char* text = value.data() != nullptr ? value.data() : "";  // a null pointer would be stored as NULL
  check(sqlite3_bind_text64(handle_, parameter, text, value.size(), SQLITE_STATIC, SQLITE_UTF8));
}

void Statement::bindOne(int parameter, std::nullopt_t /*value*/) {
  check(sqlite3_bind_null(handle_, parameter));
}

bool Statement::next() {
  const int result = sqlite3_step(handle_);
  if (result == SQLITE_ROW) return true;
  if (result == SQLITE_DONE) return false;
  throw SnapshotStoreError::ofConnection(sqlite3_db_handle(handle_));
}

void Statement::reset() noexcept {
  sqlite3_reset(handle_);  // repeats the failure of the last step, which has been reported
}

void Statement::complete() {
  next();
  reset();
}

bool Statement::isNull(int index) const { return sqlite3_column_type(handle_, index) == SQLITE_NULL; }

void Statement::read(int index, std::int64_t& value) const { value = sqlite3_column_int64(handle_, index); }

void Statement::read(int index, bool& value) const { value = sqlite3_column_int64(handle_, index) != 0; }

void Statement::read(int index, double& value) const { value = sqlite3_column_double(handle_, index); }

void Statement::read(int index, std::string_view& value) const {
  // As bytes: asked for text, SQLite would copy it to put a zero behind it.
  const void* bytes = sqlite3_column_blob(handle_, index);
  if (bytes == nullptr) return;
  value = {static_cast<const char*>(bytes), static_cast<std::size_t>(sqlite3_column_bytes(handle_, index))};
}

void Statement::read(int index, std::string& value) const {
  std::string_view text;
  read(index, text);
  value = text;
}

}  // namespace quenzel
