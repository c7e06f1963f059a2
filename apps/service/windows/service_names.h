// What the service is called where Windows keeps services and their events.
#pragma once

// In the SCM's database, in its list for people, and as the source of events.
inline constexpr wchar_t SERVICE_NAME[] = L"Lunderhaze";
