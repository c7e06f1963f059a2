// Owns the CLIPBOARD selection while this program's content is on it, and serves whoever asks:
// several at once, large content in pieces as each of them takes it (ICCCM 2.2, 2.6, 2.7.2). Never
// waits: it is given the server's events and the time. A requestor that dies or stops taking costs
// its own transfer. One thread.
#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <list>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "streams/clipboard_access.h"
#include "streams/linux/x11_selection.h"

class SelectionOwner {
 public:
  enum class Taking { None, Pending, Done, Failed };

  SelectionOwner(const x11::Connection& connection, const SelectionAtoms& atoms)
      : connection_(connection), atoms_(atoms), window_(connection) {}

  // Begins; `taking` tells how it goes. What is being sent of earlier content is still sent whole.
  void take(std::shared_ptr<const ClipboardContent> content);
  Taking taking() const { return taking_; }
  void give_up_taking() { taking_ = Taking::Failed; }

  xcb_window_t window() const { return window_.id(); }
  std::size_t transfers() const { return transfers_.size(); }

  void handle(const xcb_generic_event_t& event);
  void tick();
  std::uint64_t deadline_us() const;  // of tick; ~0 when there is nothing to wait for

 private:
  // The content, and what is made of it for those who ask.
  struct Offered {
    explicit Offered(std::shared_ptr<const ClipboardContent> from);
    std::span<const std::uint8_t> bmp();

    std::shared_ptr<const ClipboardContent> content;
    std::string latin1;

   private:
    std::vector<std::uint8_t> bmp_;  // made for the first who asks
  };
  struct Transfer {
    xcb_window_t requestor;
    xcb_atom_t property;
    xcb_atom_t type;
    std::span<const std::uint8_t> bytes;
    std::shared_ptr<Offered> offered;  // keeps the bytes
    std::size_t sent = 0;
    std::uint64_t deadline_us = 0;
  };

  void own_since(xcb_timestamp_t time);
  void lost(const xcb_selection_clear_event_t& event);
  void asked(const xcb_selection_request_event_t& request);
  bool convert(xcb_window_t requestor, xcb_atom_t target, xcb_atom_t property);
  bool convert_many(xcb_window_t requestor, xcb_atom_t property);
  std::vector<xcb_atom_t> targets() const;
  xcb_atom_t type_of(xcb_atom_t target) const;  // of what is sent for it; 0: it can't be had
  std::span<const std::uint8_t> bytes_of(xcb_atom_t type) const;
  bool send(xcb_window_t requestor, xcb_atom_t property, xcb_atom_t type);
  void property_deleted(const xcb_property_notify_event_t& event);
  void forget_requestor(xcb_window_t window);
  std::list<Transfer>::iterator forget(std::list<Transfer>::iterator transfer);

  const x11::Connection& connection_;
  const SelectionAtoms& atoms_;
  const SelectionWindow window_;
  Taking taking_ = Taking::None;
  std::uint64_t taking_deadline_us_ = 0;
  std::shared_ptr<Offered> wanted_;   // to be offered once the server has told its time
  std::shared_ptr<Offered> offered_;  // null when the selection is another's
  xcb_timestamp_t since_ = 0;
  std::list<Transfer> transfers_;
};
