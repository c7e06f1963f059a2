// COM objects that a test makes up, method by method. A Stage owns them, and records what is done
// to them: each call by its name, and as a violation what no correct caller does: a method that
// the test has given no behaviour, a call without a reference, a release too many. Once the caller
// has let go of everything, `complaints` also tells which references it has kept.
//
// An object is a table of functions, as COM has it. On x64 each of an interface's methods is a
// plain function whose first argument is the object, and a pointer to a virtual member says which
// entry of the table is meant (Itanium C++ ABI 2.3). So one class stands in for any interface.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "control/windows/com.h"

namespace fake_com {

class Object;

// "ID3D11Device::CreateTexture2D" of the method itself: the compiler knows its name.
template <auto Method>
std::string method_name() {
  const std::string_view signature = __PRETTY_FUNCTION__;
  const std::size_t begin = signature.find_first_not_of("& ", signature.rfind('&'));
  const std::size_t end = signature.find_first_of(");] ", begin);
  return std::string(signature.substr(begin, end - begin));
}

class Stage {
 public:
  // An object that QueryInterface knows by the interface and those named after it.
  template <class Interface, class... Bases>
  Object& make(std::string name);

  void call(const std::string& name) { calls_.push_back(name); }
  void violation(const std::string& what) { violations_.push_back(what); }
  std::vector<std::string> take_calls() { return std::exchange(calls_, {}); }
  int count(const std::string& name) const;

  // The next `times` calls of the method give this and do nothing.
  template <auto Method>
  void fail(HRESULT result, int times = 1) {
    fail(method_name<Method>(), result, times);
  }
  void fail(const std::string& name, HRESULT result, int times = 1) {
    failures_[name] = {result, times};
  }
  std::optional<HRESULT> injected(const std::string& name);

  // Violations, references that are still held, failures that nobody ran into. Empty is right.
  std::vector<std::string> complaints() const;

 private:
  struct Failure {
    HRESULT result = S_OK;
    int times = 0;
  };
  std::vector<std::unique_ptr<Object>> objects_;
  std::vector<std::string> calls_;
  std::vector<std::string> violations_;
  std::map<std::string, Failure> failures_;
};

class Object {
 public:
  static constexpr std::size_t SLOTS = 160;  // more than the longest interface has methods

  Object(Stage& stage, std::string name) : stage_(stage), name_(std::move(name)) {
    fill_table(std::make_index_sequence<SLOTS>());
    table_[0] = reinterpret_cast<void*>(&query_interface);
    table_[1] = reinterpret_cast<void*>(&add_ref);
    table_[2] = reinterpret_cast<void*>(&release);
  }
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  template <class Interface>
  Interface* as() {
    return reinterpret_cast<Interface*>(this);
  }
  // With a reference for whoever receives it.
  template <class Interface>
  HRESULT give(Interface** out) {
    ++references_;
    *out = as<Interface>();
    return S_OK;
  }
  static Object& of(const void* interface_pointer) {
    return *static_cast<Object*>(const_cast<void*>(interface_pointer));
  }

  template <class Interface>
  void answer(Object& with) {
    interfaces_.emplace_back(__uuidof(Interface), &with);
  }
  template <class Interface>
  void deny() {
    std::erase_if(interfaces_, [](const auto& i) { return i.first == __uuidof(Interface); });
  }

  template <auto Method, class Behaviour>
  void on(Behaviour behaviour);

  Stage& stage() { return stage_; }
  const std::string& name() const { return name_; }
  int references() const { return references_; }

 private:
  template <auto Method>
  friend struct Slot;

  template <std::size_t... Slots>
  void fill_table(std::index_sequence<Slots...>) {
    ((table_[Slots] = reinterpret_cast<void*>(&unexpected<Slots>)), ...);
  }
  template <std::size_t SlotNumber>
  static HRESULT unexpected(Object* self) {
    self->stage_.violation("unexpected call of " + self->name_ + ", method " +
                           std::to_string(SlotNumber));
    return E_UNEXPECTED;
  }
  static HRESULT query_interface(Object* self, const IID& wanted, void** out);
  static ULONG add_ref(Object* self);
  static ULONG release(Object* self);
  void check_alive(const std::string& method);

  void** const entry_ = table_.data();  // first, where a caller looks for the table
  Stage& stage_;
  std::string name_;
  int references_ = 0;
  std::vector<std::pair<IID, Object*>> interfaces_;
  std::array<void*, SLOTS> table_{};
  std::map<std::size_t, std::shared_ptr<void>> behaviours_;
};

template <auto Method>
struct Slot;

template <class Result, class Interface, class... Arguments,
          Result (STDMETHODCALLTYPE Interface::*Method)(Arguments...)>
struct Slot<Method> {
  using Behaviour = std::function<Result(Arguments...)>;

  static std::size_t number() {
    const auto method = Method;
    std::uintptr_t bits = 0;
    std::memcpy(&bits, &method, sizeof bits);
    return (bits - 1) / sizeof(void*);
  }
  static Result STDMETHODCALLTYPE call(Object* self, Arguments... arguments) {
    self->check_alive(method_name<Method>());
    self->stage_.call(method_name<Method>());
    if constexpr (std::is_same_v<Result, HRESULT>) {
      if (const auto failure = self->stage_.injected(method_name<Method>())) return *failure;
    }
    return (*static_cast<Behaviour*>(self->behaviours_.at(number()).get()))(arguments...);
  }
};

template <auto Method, class Behaviour>
void Object::on(Behaviour behaviour) {
  using S = Slot<Method>;
  behaviours_[S::number()] = std::make_shared<typename S::Behaviour>(std::move(behaviour));
  table_[S::number()] = reinterpret_cast<void*>(&S::call);
}

template <class Interface, class... Bases>
Object& Stage::make(std::string name) {
  objects_.push_back(std::make_unique<Object>(*this, std::move(name)));
  Object& made = *objects_.back();
  made.answer<IUnknown>(made);
  made.answer<Interface>(made);
  (made.answer<Bases>(made), ...);
  return made;
}

}  // namespace fake_com
