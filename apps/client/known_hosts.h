// What is learnt about hosts that are known: where they are on the LAN, where outside, and when
// they were used. Pure.
#pragma once

#include <vector>

#include "apps/client/lan_search.h"
#include "apps/client/path_history.h"
#include "connection/lists.h"

// The known hosts that `found` tells something new of. A host is recognised by its LAN id, or,
// while that isn't known, by its address. Nothing here is proved: a connection to it will prove it.
std::vector<lund_host_entry> updated_by(const std::vector<FoundHost>& found,
                                        const lund_host_list& known);

// After a session: where the host was, which it has proved.
void learn(const PathHistory& paths, const LanSearch& lan, std::uint64_t now_s,
           lund_host_entry* host);
