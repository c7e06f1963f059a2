#include "apps/service/windows/event_log.h"

#include "apps/service/windows/service_names.h"
#include "control/windows/wide_text.h"

namespace {

using EventSource = Owned<NullableKind<HANDLE, DeregisterEventSource>>;

constexpr wchar_t SOURCE_KEY[] =
    L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Lunderhaze";
// A file of Windows' own that has "%1" for every event from 1 to 1000.
constexpr wchar_t MESSAGE_FILE[] = L"%SystemRoot%\\System32\\EventCreate.exe";
constexpr DWORD EVENT_NEWS = 1;
constexpr DWORD EVENT_FAILURE = 2;
constexpr DWORD TYPES = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;

}  // namespace

LSTATUS register_event_source() {
  RegistryKey key;
  LSTATUS status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, SOURCE_KEY, 0, nullptr, 0, KEY_SET_VALUE,
                                   nullptr, key.receive(), nullptr);
  if (status == ERROR_SUCCESS)
    status = RegSetValueExW(key.get(), L"EventMessageFile", 0, REG_EXPAND_SZ,
                            reinterpret_cast<const BYTE*>(MESSAGE_FILE), sizeof MESSAGE_FILE);
  if (status == ERROR_SUCCESS)
    status = RegSetValueExW(key.get(), L"TypesSupported", 0, REG_DWORD,
                            reinterpret_cast<const BYTE*>(&TYPES), sizeof TYPES);
  return status;
}

LSTATUS unregister_event_source() {
  const LSTATUS status = RegDeleteKeyW(HKEY_LOCAL_MACHINE, SOURCE_KEY);
  return status == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : status;
}

// A line that the log doesn't take, being full or not running, is lost.
void write_event(const std::string& line, EventKind kind) {
  static const EventSource source(RegisterEventSourceW(nullptr, SERVICE_NAME));
  if (!source) return;
  const std::wstring text = to_wide(line);
  const wchar_t* words = text.c_str();
  const bool news = kind == EventKind::News;
  ReportEventW(source.get(), news ? EVENTLOG_INFORMATION_TYPE : EVENTLOG_ERROR_TYPE, 0,
               news ? EVENT_NEWS : EVENT_FAILURE, nullptr, 1, 0, &words, nullptr);
}
