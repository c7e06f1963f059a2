#include "tests/system/package/package_support.h"

#include <sstream>

namespace fs = std::filesystem;

namespace {

const fs::path DEB_DIRECTORY = fs::path(LUND_BUILD_DIR) / "deb";

// Where scripts/package-root says that the system is.
std::string told(const std::string& file) {
  std::string text = file_content(DEB_DIRECTORY / file);
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

fs::path only_package() {
  std::vector<fs::path> found;
  for (const auto& entry : fs::directory_iterator(DEB_DIRECTORY))
    if (entry.path().extension() == ".deb") found.push_back(entry.path());
  EXPECT_EQ(found.size(), 1u) << DEB_DIRECTORY;
  return found.empty() ? fs::path() : found.front();
}

std::string output_of(const RunResult& result) {
  EXPECT_EQ(result.status, 0) << result.output;
  return result.output;
}

}  // namespace

const fs::path& package_file() {
  static const fs::path file = only_package();
  return file;
}

std::string package_field(const std::string& name) {
  return output_of(run_program({"dpkg-deb", "-f", package_file().string(), name}));
}

UnpackedPackage::UnpackedPackage() {
  output_of(run_program({"dpkg-deb", "-x", package_file().string(), directory_.path().string()}));
}

std::vector<std::string> UnpackedPackage::files(const std::string& directory) const {
  std::vector<std::string> found;
  for (const auto& entry : fs::recursive_directory_iterator(root() / directory.substr(1)))
    if (!entry.is_directory()) found.push_back("/" + fs::relative(entry.path(), root()).string());
  return found;
}

std::vector<std::string> UnpackedPackage::programs() const {
  std::vector<std::string> all;
  for (const std::string directory : {"/usr/bin", "/usr/sbin"})
    if (fs::exists(root() / directory.substr(1)))
      for (const std::string& program : files(directory)) all.push_back(program);
  return all;
}

std::string UnpackedPackage::read(const std::string& path) const {
  return file_content(root() / path.substr(1));
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

void PackageTest::SetUp() {
  const std::string system = told("root");
  if (system.empty()) {
    const std::string why = told("no-root");
    GTEST_SKIP() << (why.empty() ? "ctest's package_root makes a system for this test" : why);
  }
  const std::string missing = MachineLab::missing(system);
  if (!missing.empty()) GTEST_SKIP() << missing;
  debian_.emplace(system);
  // Its first start would have given it one.
  write_file(debian_->path("/etc/machine-id"), "0123456789abcdef0123456789abcdef\n");
  directory_.emplace();
  fs::copy_file(package_file(), *directory_ / "lunderhaze.deb");
}

std::string PackageTest::run(const std::vector<std::string>& arguments) {
  return output_of(debian_->run(arguments, {{"LC_ALL", "C.UTF-8"}, {"DISPLAY", ""}}));
}

std::string PackageTest::install() {
  // Nothing here outlives the test, so nothing need reach a disk.
  return run({"dpkg", "--force-unsafe-io", "-i", (*directory_ / "lunderhaze.deb").string()});
}

std::map<std::string, std::string> PackageTest::listing() {
  std::map<std::string, std::string> files;
  const std::string found =
      run({"find", "/", "/run", "-xdev", "(", "-path", "/var/lib/dpkg", "-o", "-path",
           "/var/cache/man", "-o", "-path", "/var/log/dpkg.log", ")", "-prune", "-o",
           // A directory's size is the file system's affair.
           "(", "-type", "d", "-printf", "%p\t%y %m %U:%G\n", "-o", "-printf",
           "%p\t%y %m %U:%G %s %l\n", ")"});
  for (const std::string& line : lines_of(found)) {
    const std::size_t tab = line.find('\t');
    files[line.substr(0, tab)] = line.substr(tab + 1);
  }
  return files;
}
