#include "tests/support/windows/installed_programs.h"

#include "control/windows/handles.h"
#include "tests/support/windows/beside_test.h"
#include "tests/support/windows/native_program.h"

namespace fs = std::filesystem;

namespace {

// Where the system looks for its directory of programs' data.
constexpr wchar_t FOLDERS[] =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders";
constexpr wchar_t PROGRAM_DATA[] = L"Common AppData";
constexpr wchar_t USUAL_PLACE[] = L"%ProgramData%";

void set_program_data(const std::wstring& place) {
  RegSetKeyValueW(HKEY_LOCAL_MACHINE, FOLDERS, PROGRAM_DATA, REG_EXPAND_SZ, place.c_str(),
                  static_cast<DWORD>((place.size() + 1) * sizeof(wchar_t)));
}

}  // namespace

bool InstalledPrograms::possible() {
  return under_wine();
}

InstalledPrograms::InstalledPrograms() {
  fs::create_directory(programs());
  fs::copy_file(beside_test("trusted_worker.exe"), *this / "lunderhaze-worker.exe");
  fs::copy_file(beside_test("trusted_service.exe"), *this / "lunderhaze-service.exe");
  for (const auto& entry : fs::directory_iterator(beside_test(".")))
    if (entry.path().extension() == ".dll")
      fs::copy_file(entry.path(), programs() / entry.path().filename());
  fs::create_directory(directory_ / "ProgramData");
  set_program_data((directory_ / "ProgramData").native());
}

InstalledPrograms::~InstalledPrograms() {
  set_program_data(USUAL_PLACE);
}

fs::path InstalledPrograms::stored(const std::string& name) const {
  return directory_ / "ProgramData" / "Lunderhaze" / "Host" / name;
}
