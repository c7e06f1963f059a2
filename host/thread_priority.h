// The priority of the thread that receives.
#pragma once

// Raises the calling thread above ordinary ones; without the right to, nothing changes.
void raise_receive_priority();
