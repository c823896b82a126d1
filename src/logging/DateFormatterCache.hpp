#pragma once

#include "platform/Foundation.hpp"

namespace vornet {

/// The calling thread's formatter for "yyyy-MM-dd HH:mm:ss.SSS" in the user's current locale; made once a thread and
/// locale and kept until the thread ends. Null when the platform offers none.
platform::DateFormatter* dateFormatterOfThread();

}  // namespace vornet
