#include "control/windows/known_folder.h"

#include <shlobj.h>

std::filesystem::path own_directory(const GUID& folder) {
  // Given out on failure too, then as null.
  ComMemory<wchar_t> base;
  if (FAILED(SHGetKnownFolderPath(folder, KF_FLAG_DEFAULT, nullptr, base.receive()))) return {};
  return std::filesystem::path(base.get()) / L"Lunderhaze";
}
