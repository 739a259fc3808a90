#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace quenzel::testing {

/// A fresh folder of its own for one test, removed with everything in it at the end of the scope. Its path
/// holds no symbolic link.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern =
        (std::filesystem::canonical(std::filesystem::temp_directory_path()) / "quenzel-XXXXXX");
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder at " + pattern);
    path_ = pattern;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;  // nothing may leave a destructor, and a left-over folder in /tmp harms nobody
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }
  /// The full path of the entry of that relative path, as text.
  std::string operator/(std::string_view relative) const { return (path_ / relative).string(); }

  /// Writes a file, its missing folders included, and returns its full path.
  std::string write(std::string_view relative, std::string_view content) const {
    const std::filesystem::path file = path_ / relative;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary);
    if (!(stream << content << std::flush)) throw std::runtime_error("can't write " + file.string());
    return file.string();
  }

  /// The content of a file; empty when there is none.
  std::string read(std::string_view relative) const {
    std::ifstream stream(path_ / relative, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  }

 private:
  std::filesystem::path path_;
};

/// The permissions of a file, or of what a link leads to.
inline unsigned modeOf(const std::filesystem::path& path) {
  return static_cast<unsigned>(std::filesystem::status(path).permissions());
}

}  // namespace quenzel::testing
