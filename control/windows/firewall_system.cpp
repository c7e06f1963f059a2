// The firewall's own interface, and the elevated command.
#include <algorithm>
#include <cwchar>

#include "control/sysinfo.h"
#include "control/windows/com.h"
#include "control/windows/firewall_rule.h"
#include "control/windows/known_folder.h"
#include "control/windows/wide_text.h"
// After what com.h includes.
#include <netfw.h>
#include <oleauto.h>
#include <shellapi.h>

namespace {

using SystemText = Owned<NullableKind<BSTR, SysFreeString>>;

constexpr LONG ANY_PROTOCOL = 256;

// Null for a property that isn't set.
const wchar_t* text_of(const SystemText& text) {
  return text ? text.get() : L"";
}

// In the system's directory, so that the cmd.exe and the netsh that get an administrator's rights
// are the ones that lie there, and none that the current directory has.
ElevatedEnd run_elevated(const std::wstring& parameters, std::uint32_t timeout_ms) {
  using How = ElevatedEnd::How;
  const ComThread com(COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE);
  const std::filesystem::path directory = system_directory();
  SHELLEXECUTEINFOW command{};
  command.cbSize = sizeof(command);
  command.fMask = SEE_MASK_NOCLOSEPROCESS | SEE_MASK_NOASYNC;
  command.lpVerb = L"runas";
  command.lpFile = L"cmd.exe";
  command.lpParameters = parameters.c_str();
  command.lpDirectory = directory.empty() ? nullptr : directory.c_str();
  command.nShow = SW_HIDE;
  if (!ShellExecuteExW(&command)) return {How::NotStarted, GetLastError()};
  const Handle process(command.hProcess);
  if (!process) return {How::NoProcess, 0};
  if (WaitForSingleObject(process.get(), timeout_ms) != WAIT_OBJECT_0) return {How::TimedOut, 0};
  DWORD code = 0;
  if (!GetExitCodeProcess(process.get(), &code)) return {How::NoProcess, 0};
  return {How::Exited, code};
}

bool same_path(const wchar_t* stored, const std::filesystem::path& program) {
  wchar_t expanded[MAX_PATH * 4];
  const DWORD count = ExpandEnvironmentStringsW(stored, expanded, ARRAYSIZE(expanded));
  return count > 0 && count <= ARRAYSIZE(expanded) && _wcsicmp(expanded, program.c_str()) == 0;
}

// Adds what the rule means to `view`, if it is about this program.
void take_rule(INetFwRule* rule, const std::filesystem::path& self, FirewallView* view) {
  SystemText name, program, ports;
  VARIANT_BOOL enabled = VARIANT_FALSE;
  NET_FW_RULE_DIRECTION direction = NET_FW_RULE_DIR_OUT;
  NET_FW_ACTION action = NET_FW_ACTION_BLOCK;
  LONG protocol = 0;
  LONG profiles = 0;
  if (FAILED(rule->get_Name(name.receive())) ||
      FAILED(rule->get_ApplicationName(program.receive())) || FAILED(rule->get_Enabled(&enabled)) ||
      FAILED(rule->get_Direction(&direction)) || FAILED(rule->get_Action(&action)) ||
      FAILED(rule->get_Protocol(&protocol)) || FAILED(rule->get_Profiles(&profiles)))
    return;
  view->has_own_rule = view->has_own_rule || text_of(name) == std::wstring_view(L"Lunderhaze");
  if (enabled == VARIANT_FALSE || direction != NET_FW_RULE_DIR_IN ||
      (protocol != NET_FW_IP_PROTOCOL_UDP && protocol != ANY_PROTOCOL) ||
      !same_path(text_of(program), self))
    return;
  // Not every kind of rule has ports.
  if (SUCCEEDED(rule->get_LocalPorts(ports.receive())) && *text_of(ports) != 0 &&
      text_of(ports) != std::wstring_view(L"*"))
    return;
  view->rules.push_back({to_utf8(text_of(name)), action == NET_FW_ACTION_ALLOW,
                         (profiles & NET_FW_PROFILE2_PRIVATE) != 0});
}

HRESULT take_rules(INetFwPolicy2* policy, const std::filesystem::path& self, FirewallView* view) {
  ComPtr<INetFwRules> rules;
  ComPtr<IUnknown> listed;
  ComPtr<IEnumVARIANT> list;
  HRESULT result = policy->get_Rules(&rules);
  if (SUCCEEDED(result)) result = rules->get__NewEnum(&listed);
  if (SUCCEEDED(result)) result = listed.As(&list);
  if (FAILED(result)) return result;
  for (;;) {
    VARIANT one;
    VariantInit(&one);
    result = list->Next(1, &one, nullptr);
    if (result != S_OK) return result;
    ComPtr<INetFwRule> rule;
    if (one.vt == VT_DISPATCH && one.pdispVal != nullptr &&
        SUCCEEDED(one.pdispVal->QueryInterface(IID_PPV_ARGS(&rule))))
      take_rule(rule.Get(), self, view);
    VariantClear(&one);
  }
}

// On the networks of now that aren't public, or on private ones where there are none.
HRESULT take_profiles(INetFwPolicy2* policy, FirewallView* view) {
  LONG current = 0;
  HRESULT result = policy->get_CurrentProfileTypes(&current);
  if (FAILED(result)) return result;
  constexpr LONG SERVED = NET_FW_PROFILE2_DOMAIN | NET_FW_PROFILE2_PRIVATE;
  view->on_private_network = (current & SERVED) != 0;
  const LONG looked_at =
      view->on_private_network ? current & SERVED : LONG{NET_FW_PROFILE2_PRIVATE};
  view->enabled = false;
  for (const NET_FW_PROFILE_TYPE2 profile : {NET_FW_PROFILE2_DOMAIN, NET_FW_PROFILE2_PRIVATE}) {
    if ((looked_at & profile) == 0) continue;
    VARIANT_BOOL enabled = VARIANT_FALSE;
    VARIANT_BOOL blocks = VARIANT_FALSE;
    result = policy->get_FirewallEnabled(profile, &enabled);
    if (SUCCEEDED(result)) result = policy->get_BlockAllInboundTraffic(profile, &blocks);
    if (FAILED(result)) return result;
    view->enabled = view->enabled || enabled != VARIANT_FALSE;
    view->blocks_all_incoming =
        view->blocks_all_incoming || (enabled != VARIANT_FALSE && blocks != VARIANT_FALSE);
  }
  return S_OK;
}

std::optional<FirewallView> look(const std::filesystem::path& self, long* code) {
  const ComThread com;
  ComPtr<INetFwPolicy2> policy;
  FirewallView view;
  HRESULT result = CoCreateInstance(__uuidof(NetFwPolicy2), nullptr, CLSCTX_INPROC_SERVER,
                                    IID_PPV_ARGS(&policy));
  if (SUCCEEDED(result)) result = take_profiles(policy.Get(), &view);
  if (SUCCEEDED(result)) result = take_rules(policy.Get(), self, &view);
  *code = result;
  if (FAILED(result)) return std::nullopt;
  return view;
}

}  // namespace

FirewallSystem native_firewall_system() {
  FirewallSystem system;
  system.self = exe_path();
  system.run_elevated = run_elevated;
  system.look = [self = system.self](long* code) { return look(self, code); };
  return system;
}
