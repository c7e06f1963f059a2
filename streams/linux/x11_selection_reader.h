// Asks the owner of the CLIPBOARD selection for one target after the other and takes what it sends,
// in one piece or in many (ICCCM 2.7.2). Never waits: it is given the server's events and the time.
// Owners may answer late, never, with something else, or without end; each bound here is against
// one of these. One thread.
#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "streams/linux/x11_selection.h"

class SelectionReader {
 public:
  enum class State {
    Idle,
    Asked,      // the owner hasn't answered
    Receiving,  // in pieces
    Done,
    TooLarge,   // the size is what is known of it
    Refused,    // the owner doesn't have it in this form
    Silent,     // the owner hasn't answered in time
    Abandoned,  // by abandon
  };

  SelectionReader(const x11::Connection& connection, const SelectionAtoms& atoms)
      : connection_(connection), atoms_(atoms) {}

  // What was going on is forgotten. `time`: of the event by which the selection's state is known.
  void ask(xcb_atom_t target, xcb_timestamp_t time, std::uint64_t most_bytes);
  void abandon();

  void handle(const xcb_generic_event_t& event);
  void tick();
  std::uint64_t deadline_us() const;  // of tick; ~0 when there is nothing to wait for

  State state() const { return state_; }
  bool busy() const { return state_ == State::Asked || state_ == State::Receiving; }
  std::vector<std::uint8_t> take_bytes() { return std::move(bytes_); }
  std::uint64_t size() const { return size_; }
  xcb_atom_t type() const { return type_; }

 private:
  void end(State state);
  void answered(const xcb_selection_notify_event_t& event);
  void begin_pieces();
  void piece_came();
  bool take_property();  // false after the end of the transfer

  const x11::Connection& connection_;
  const SelectionAtoms& atoms_;
  // One for each question, so that late answers to another go nowhere.
  std::unique_ptr<SelectionWindow> window_;
  State state_ = State::Idle;
  std::uint64_t most_bytes_ = 0;
  std::vector<std::uint8_t> bytes_;
  std::uint64_t size_ = 0;
  xcb_atom_t type_ = XCB_NONE;
  std::uint64_t step_deadline_us_ = 0;
  std::uint64_t end_deadline_us_ = 0;
};
