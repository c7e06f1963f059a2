#include "control/windows/known_folder.h"

#include <shlobj.h>

std::filesystem::path own_directory(const GUID& folder) {
  // Given out on failure too, then as null.
  ComMemory<wchar_t> base;
  if (FAILED(SHGetKnownFolderPath(folder, KF_FLAG_DEFAULT, nullptr, base.receive()))) return {};
  return std::filesystem::path(base.get()) / L"Lunderhaze";
}

std::filesystem::path system_directory() {
  wchar_t path[MAX_PATH];
  const UINT count = GetSystemDirectoryW(path, MAX_PATH);
  return count > 0 && count < MAX_PATH ? std::filesystem::path(path) : std::filesystem::path();
}
