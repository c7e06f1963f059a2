// This product's directories in the folders that Windows keeps for programs, and Windows' own.
// Stateless; any thread.
#pragma once

#include <filesystem>

#include "control/windows/handles.h"
// After what handles.h includes.
#include <knownfolders.h>

// "<folder>\Lunderhaze", made or not; empty when Windows can't tell where the folder is.
std::filesystem::path own_directory(const GUID& folder);

// Where cmd.exe and its like lie, and nobody but administrators changes anything; empty when
// Windows can't tell.
std::filesystem::path system_directory();
