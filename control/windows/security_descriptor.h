// Descriptors for what this product makes, from their SDDL texts. Stateless; any thread.
#pragma once

#include <string>

#include "control/keystore.h"
#include "control/windows/handles.h"

using SecurityDescriptor = LocalMemory<void>;

// Empty when the text can't be turned into one; GetLastError says why.
SecurityDescriptor security_descriptor(const std::wstring& sddl);

// For a call that makes something. Without a descriptor: the system's default. The descriptor is to
// outlive it.
SECURITY_ATTRIBUTES security_attributes(const SecurityDescriptor& descriptor);

std::wstring current_user_sid();  // "S-1-5-...", empty when the process's token can't be read

// A file of the store: the machine's is the system's and the administrators' alone, a user's is
// the user's and the system's alone. Without inheritance. Empty when it can't be had.
SecurityDescriptor store_file_descriptor(keystore::HostStoreScope scope);

// The same of a user's directory, for what is made in it too.
SecurityDescriptor user_directory_descriptor();
