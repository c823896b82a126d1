#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>

/// Figures of a process, from the system. 0 when there is no such process.
namespace vornet::bench {

/// Resident memory in MiB.
double residentMemory(pid_t process);

std::size_t threadCount(pid_t process);

/// The processor time that all its threads have used so far, in seconds.
double processorTime(pid_t process);

/// The growth in MiB of the resident memory of a process that does `work` and keeps its result; measured in a child
/// process.
template <class Work>
double memoryOf(Work work);

/// As memoryOf: `work` calls its argument once everything has been made and is still there.
double memoryGrowth(const std::function<void(const std::function<void()>& made)>& work);

template <class Work>
double memoryOf(Work work) {
  return memoryGrowth([&](const std::function<void()>& made) {
    const auto kept = work();
    made();
  });
}

}  // namespace vornet::bench
