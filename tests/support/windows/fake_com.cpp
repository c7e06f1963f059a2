#include "tests/support/windows/fake_com.h"

#include <algorithm>

namespace fake_com {

int Stage::count(const std::string& name) const {
  return static_cast<int>(std::count(calls_.begin(), calls_.end(), name));
}

std::optional<HRESULT> Stage::injected(const std::string& name) {
  const auto found = failures_.find(name);
  if (found == failures_.end()) return std::nullopt;
  const HRESULT result = found->second.result;
  if (--found->second.times == 0) failures_.erase(found);
  return result;
}

std::vector<std::string> Stage::complaints() const {
  std::vector<std::string> all = violations_;
  for (const auto& object : objects_) {
    if (object->references() != 0)
      all.push_back(object->name() + ": references held: " + std::to_string(object->references()));
  }
  for (const auto& [name, failure] : failures_) all.push_back("never failed: " + name);
  return all;
}

HRESULT Object::query_interface(Object* self, const IID& wanted, void** out) {
  self->check_alive("QueryInterface");
  *out = nullptr;
  const auto found =
      std::find_if(self->interfaces_.begin(), self->interfaces_.end(),
                   [&](const auto& i) { return IsEqualIID(i.first, wanted) != FALSE; });
  if (found == self->interfaces_.end()) return E_NOINTERFACE;
  ++found->second->references_;
  *out = found->second;
  return S_OK;
}

ULONG Object::add_ref(Object* self) {
  if (self->references_ == 0) self->stage_.violation(self->name_ + ": AddRef after its end");
  return static_cast<ULONG>(++self->references_);
}

ULONG Object::release(Object* self) {
  if (self->references_ == 0) {
    self->stage_.violation(self->name_ + ": released once too often");
    return 0;
  }
  return static_cast<ULONG>(--self->references_);
}

void Object::check_alive(const std::string& method) {
  if (references_ == 0) stage_.violation(method + " of " + name_ + " after its end");
}

}  // namespace fake_com
