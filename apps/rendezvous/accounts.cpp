#include "apps/rendezvous/accounts.h"

AccountTable::AccountTable(std::size_t capacity, const SipKey& key)
    : capacity_(std::max<std::size_t>(capacity, 1)), index_(0, AddressHash{key}) {
  index_.reserve(capacity_);
}

Account& AccountTable::of(const lund_rv_endpoint& address) {
  const AddressBlock block(address);
  if (const auto known = index_.find(block); known != index_.end()) {
    entries_.splice(entries_.begin(), entries_, known->second);
  } else if (entries_.size() < capacity_) {
    entries_.emplace_front(block, Account{});
    index_.emplace(block, entries_.begin());
  } else {  // the oldest one's memory, in list and index, becomes the new one's
    entries_.splice(entries_.begin(), entries_, std::prev(entries_.end()));
    auto node = index_.extract(entries_.front().first);
    entries_.front() = {block, Account{}};
    node.key() = block;
    index_.insert(std::move(node));
  }
  return entries_.front().second;
}
