// SPDX-License-Identifier: Apache-2.0

#pragma once

namespace videostabilizer {

// A descriptor that can be read from while the event is set. Threads: owner only.
class ReadyEvent {
  public:
    ReadyEvent() = default;
    ~ReadyEvent();
    ReadyEvent(const ReadyEvent&) = delete;
    ReadyEvent& operator=(const ReadyEvent&) = delete;

    // Opens it, not set. Returns false where the system gives none.
    bool open();

    int descriptor() const { return descriptor_; }  // -1: not open

    // Of an open one.
    void set(bool ready);

  private:
    int descriptor_ = -1;
    bool ready_ = false;
};

}  // namespace videostabilizer
