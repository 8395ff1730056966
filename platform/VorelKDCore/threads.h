// Which mailbox a thread handle stands for.
#pragma once

#include <memory>

#include "mailbox.h"

namespace vorelkd {

// The calling thread's mailbox, made at the first call; null when memory is exhausted (KD_ENOMEM)
// or when the thread is past its end, in the destructors of its thread-local objects (KD_ESRCH).
// The error code is then set.
[[nodiscard]] Mailbox* Self() noexcept;

// Whether this is the calling thread's mailbox; makes none.
[[nodiscard]] bool IsSelf(const Mailbox& mailbox) noexcept;

// Handle of the calling thread, also past its end; null when it never had a mailbox and cannot have
// one.
[[nodiscard]] KDThread* SelfHandle() noexcept;

// The mailbox of a thread that lives, or null. The caller's share keeps the memory, not the thread.
[[nodiscard]] std::shared_ptr<Mailbox> Lookup(KDThread* handle) noexcept;

}  // namespace vorelkd
