// Lowers the calling thread's disk priority to the idle class for as long as the value lives, so a
// background scan yields the disk to everything else; the earlier priority comes back when it ends.
// Per thread: make one on each thread that should be lowered, and end it on that same thread.
#pragma once

namespace vantle {

class IdleIoPriority {
  public:
    IdleIoPriority();
    ~IdleIoPriority();
    IdleIoPriority(const IdleIoPriority&) = delete;
    IdleIoPriority& operator=(const IdleIoPriority&) = delete;

    // False when the system refused the change; the work then simply runs at its usual priority.
    bool lowered() const { return lowered_; }

    // The calling thread's priority as the system reports it (class and level packed), or -1.
    static int current();

  private:
    int previous_ = -1;
    bool lowered_ = false;
};

} // namespace vantle
