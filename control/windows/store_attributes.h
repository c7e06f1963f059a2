// Whom the store's own files and directories belong to. Stateless; any thread.
#pragma once

#include "control/keystore.h"
#include "control/windows/security_attributes.h"

// Of a file: the machine's is the system's and the administrators' alone, a user's is the user's
// and the system's alone, both without inheritance. False where it can't be had, and then what is
// made with it has the system's default.
SecurityAttributes store_file_attributes(keystore::HostStoreScope scope);

// The same of a user's directory, for what is made in it too.
SecurityAttributes user_directory_attributes();
