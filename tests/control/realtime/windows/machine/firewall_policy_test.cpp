// What the firewall's own interface is asked, and what is made of its answers.
#include <gmock/gmock.h>

#include "control/sysinfo.h"
#include "control/windows/firewall_rule.h"
#include "tests/support/windows/fake_com.h"
// After what fake_com.h includes.
#include <netfw.h>
#include <oleauto.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr LONG DOMAINS = NET_FW_PROFILE2_DOMAIN;
constexpr LONG PRIVATE = NET_FW_PROFILE2_PRIVATE;
constexpr LONG PUBLIC = NET_FW_PROFILE2_PUBLIC;

// In place of the system's; null: it can't be had.
fake_com::Object* g_policy = nullptr;

HRESULT WINAPI create_instance(REFCLSID what, IUnknown* outer, DWORD context, REFIID wanted,
                               void** out) {
  EXPECT_EQ(what, __uuidof(NetFwPolicy2));
  EXPECT_EQ(outer, nullptr);
  EXPECT_EQ(context, DWORD{CLSCTX_INPROC_SERVER});
  EXPECT_EQ(wanted, __uuidof(INetFwPolicy2));
  if (g_policy == nullptr) return REGDB_E_CLASSNOTREG;
  return g_policy->give(reinterpret_cast<INetFwPolicy2**>(out));
}

// By default one that lets clients in at this program on private networks.
struct Rule {
  std::wstring name = L"a rule";
  std::wstring program = exe_path().native();
  bool enabled = true;
  NET_FW_RULE_DIRECTION direction = NET_FW_RULE_DIR_IN;
  NET_FW_ACTION action = NET_FW_ACTION_ALLOW;
  LONG protocol = NET_FW_IP_PROTOCOL_UDP;
  LONG profiles = PRIVATE;
  const wchar_t* ports = L"*";
};

VARIANT_BOOL truth(bool value) {
  return value ? VARIANT_TRUE : VARIANT_FALSE;
}

// Gives a value out by the method's argument.
template <class Value>
auto gives(Value value) {
  return [value](Value* out) {
    *out = value;
    return S_OK;
  };
}
auto gives_text(const std::wstring& text) {
  return [text](BSTR* out) {
    *out = SysAllocString(text.c_str());
    return S_OK;
  };
}

class FirewallPolicy : public testing::Test {
 protected:
  FirewallPolicy()
      : policy_(stage_.make<INetFwPolicy2, IDispatch>("policy")),
        rules_(stage_.make<INetFwRules, IDispatch>("rules")),
        list_(stage_.make<IEnumVARIANT>("list")) {
    g_policy = &policy_;
    policy_.on<&INetFwPolicy2::get_CurrentProfileTypes>([this](LONG* profiles) {
      *profiles = current_;
      return S_OK;
    });
    policy_.on<&INetFwPolicy2::get_FirewallEnabled>(
        [this](NET_FW_PROFILE_TYPE2 profile, VARIANT_BOOL* enabled) {
          *enabled = truth((enabled_ & profile) != 0);
          return S_OK;
        });
    policy_.on<&INetFwPolicy2::get_BlockAllInboundTraffic>(
        [this](NET_FW_PROFILE_TYPE2 profile, VARIANT_BOOL* blocks) {
          *blocks = truth((blocking_ & profile) != 0);
          return S_OK;
        });
    policy_.on<&INetFwPolicy2::get_Rules>([this](INetFwRules** out) { return rules_.give(out); });
    rules_.on<&INetFwRules::get__NewEnum>([this](IUnknown** out) { return list_.give(out); });
    list_.on<&IEnumVARIANT::Next>([this](ULONG count, VARIANT* out, ULONG*) {
      EXPECT_EQ(count, 1u);
      if (next_ == listed_.size()) return S_FALSE;
      out->vt = VT_DISPATCH;
      return listed_[next_++]->give(&out->pdispVal);
    });
  }
  ~FirewallPolicy() override { g_policy = nullptr; }
  void TearDown() override { EXPECT_THAT(stage_.complaints(), IsEmpty()); }

  void add(const Rule& rule) {
    fake_com::Object& made = stage_.make<INetFwRule, IDispatch>("rule");
    made.on<&INetFwRule::get_Name>(gives_text(rule.name));
    made.on<&INetFwRule::get_ApplicationName>(gives_text(rule.program));
    made.on<&INetFwRule::get_Enabled>(gives(truth(rule.enabled)));
    made.on<&INetFwRule::get_Direction>(gives(rule.direction));
    made.on<&INetFwRule::get_Action>(gives(rule.action));
    made.on<&INetFwRule::get_Protocol>(gives(rule.protocol));
    made.on<&INetFwRule::get_Profiles>(gives(rule.profiles));
    made.on<&INetFwRule::get_LocalPorts>([ports = rule.ports](BSTR* out) {
      *out = ports != nullptr ? SysAllocString(ports) : nullptr;
      return S_OK;
    });
    listed_.push_back(&made);
  }
  std::optional<FirewallView> look() {
    next_ = 0;
    return native_firewall_system().look(&code_);
  }
  // Of the rules that are about this program.
  std::vector<std::string> found() {
    std::vector<std::string> names;
    const FirewallView view = look().value();
    for (const ProgramRule& rule : view.rules) names.push_back(rule.name);
    return names;
  }

  fake_com::Stage stage_;
  fake_com::Object& policy_;
  fake_com::Object& rules_;
  fake_com::Object& list_;
  std::vector<fake_com::Object*> listed_;
  std::size_t next_ = 0;
  LONG current_ = PRIVATE, enabled_ = DOMAINS | PRIVATE | PUBLIC, blocking_ = 0;
  long code_ = 1;
};

TEST_F(FirewallPolicy, RulesForIncomingDatagramsToThisProgramAreFoundAndNoOthers) {
  add({.name = L"this"});
  add({.name = L"off", .enabled = false});
  add({.name = L"outgoing", .direction = NET_FW_RULE_DIR_OUT});
  add({.name = L"tcp", .protocol = NET_FW_IP_PROTOCOL_TCP});
  add({.name = L"another's", .program = L"C:\\windows\\notepad.exe"});
  add({.name = L"of all programs", .program = L""});
  add({.name = L"one port", .ports = L"9876"});
  add({.name = L"whatever protocol", .protocol = 256});
  add({.name = L"without ports", .ports = nullptr});
  EXPECT_THAT(found(), ElementsAre("this", "whatever protocol", "without ports"));
  EXPECT_EQ(code_, S_FALSE);
}

TEST_F(FirewallPolicy, AProgramIsTheSameWhateverTheCaseAndByVariables) {
  std::wstring upper = exe_path().native();
  CharUpperW(upper.data());
  add({.name = L"upper case", .program = upper});
  ASSERT_TRUE(SetEnvironmentVariableW(L"LUND_PLACE", exe_path().parent_path().c_str()));
  add({.name = L"variable", .program = L"%LUND_PLACE%\\" + exe_path().filename().native()});
  EXPECT_THAT(found(), ElementsAre("upper case", "variable"));
  SetEnvironmentVariableW(L"LUND_PLACE", nullptr);
}

TEST_F(FirewallPolicy, WhatARuleDoesAndWhereIsKnown) {
  add({.name = L"blocks", .action = NET_FW_ACTION_BLOCK, .profiles = PUBLIC | PRIVATE});
  add({.name = L"elsewhere", .profiles = PUBLIC | DOMAINS});
  const FirewallView view = look().value();
  ASSERT_EQ(view.rules.size(), 2u);
  EXPECT_FALSE(view.rules[0].allows);
  EXPECT_TRUE(view.rules[0].on_private);
  EXPECT_TRUE(view.rules[1].allows);
  EXPECT_FALSE(view.rules[1].on_private);
}

TEST_F(FirewallPolicy, TheProductsRuleIsKnownByItsNameWhateverItsProgram) {
  add({.name = L"Lunderhaze worker"});
  EXPECT_FALSE(look()->has_own_rule);
  add({.name = L"Lunderhaze", .program = L"C:\\moved\\lunderhaze.exe", .enabled = false});
  EXPECT_TRUE(look()->has_own_rule);
}

TEST_F(FirewallPolicy, TheNetworksOfNowCountAndPrivateOnesWhereAllArePublic) {
  current_ = DOMAINS;
  enabled_ = DOMAINS;
  EXPECT_TRUE(look()->on_private_network);
  EXPECT_TRUE(look()->enabled);
  enabled_ = PRIVATE | PUBLIC;
  EXPECT_FALSE(look()->enabled);
  current_ = PUBLIC;
  EXPECT_FALSE(look()->on_private_network);
  EXPECT_TRUE(look()->enabled);
  enabled_ = PUBLIC;
  EXPECT_FALSE(look()->enabled);
}

TEST_F(FirewallPolicy, ItBlocksAllOnlyWhereItIsOn) {
  blocking_ = PUBLIC;
  EXPECT_FALSE(look()->blocks_all_incoming);
  blocking_ = PRIVATE;
  EXPECT_TRUE(look()->blocks_all_incoming);
  enabled_ = PUBLIC;
  EXPECT_FALSE(look()->blocks_all_incoming);
}

TEST_F(FirewallPolicy, AnyAnswerThatFailsIsTheReasonWhyNothingIsKnown) {
  const std::string questions[] = {
      fake_com::method_name<&INetFwPolicy2::get_CurrentProfileTypes>(),
      fake_com::method_name<&INetFwPolicy2::get_FirewallEnabled>(),
      fake_com::method_name<&INetFwPolicy2::get_BlockAllInboundTraffic>(),
      fake_com::method_name<&INetFwPolicy2::get_Rules>(),
      fake_com::method_name<&INetFwRules::get__NewEnum>(),
      fake_com::method_name<&IEnumVARIANT::Next>(),
  };
  add({});
  for (const std::string& question : questions) {
    stage_.fail(question, E_ACCESSDENIED);
    EXPECT_FALSE(look()) << question;
    EXPECT_EQ(code_, E_ACCESSDENIED) << question;
  }
  list_.deny<IEnumVARIANT>();
  EXPECT_FALSE(look());
  EXPECT_EQ(code_, E_NOINTERFACE);
  g_policy = nullptr;
  EXPECT_EQ(rule_status(native_firewall_system()).text,
            "Windows' firewall could not be asked (0x80040154)");
}

TEST_F(FirewallPolicy, ARuleThatDoesNotSayWhatItIsIsPassedOver) {
  add({.name = L"first"});
  add({.name = L"second"});
  const std::string properties[] = {
      fake_com::method_name<&INetFwRule::get_Name>(),
      fake_com::method_name<&INetFwRule::get_ApplicationName>(),
      fake_com::method_name<&INetFwRule::get_Enabled>(),
      fake_com::method_name<&INetFwRule::get_Direction>(),
      fake_com::method_name<&INetFwRule::get_Action>(),
      fake_com::method_name<&INetFwRule::get_Protocol>(),
      fake_com::method_name<&INetFwRule::get_Profiles>(),
  };
  for (const std::string& property : properties) {
    stage_.fail(property, E_NOTIMPL);
    EXPECT_THAT(found(), ElementsAre("second")) << property;
  }
  stage_.fail<&INetFwRule::get_LocalPorts>(E_NOTIMPL);  // not every kind has them
  EXPECT_THAT(found(), ElementsAre("first", "second"));
}

}  // namespace

extern "C" {
decltype(&create_instance) __imp_CoCreateInstance = create_instance;
}
