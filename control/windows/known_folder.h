// This product's directories in the folders that Windows keeps for programs. Stateless; any thread.
#pragma once

#include <filesystem>

#include "control/windows/handles.h"
// After what handles.h includes.
#include <knownfolders.h>

// "<folder>\Lunderhaze", made or not; empty when Windows can't tell where the folder is.
std::filesystem::path own_directory(const GUID& folder);
