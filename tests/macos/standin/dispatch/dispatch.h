#pragma once

#include <cstdint>

// Stands in for the part of Dispatch that the extension uses, on threads that Foundation knows. Written from Dispatch's
// public documentation.

extern "C" {

typedef struct dispatch_group_s* dispatch_group_t;
typedef struct dispatch_queue_s* dispatch_queue_t;
typedef struct dispatch_queue_attr_s* dispatch_queue_attr_t;
typedef std::uint64_t dispatch_time_t;
typedef void (*dispatch_function_t)(void*);

#define DISPATCH_QUEUE_PRIORITY_BACKGROUND INT16_MIN
#define DISPATCH_QUEUE_SERIAL nullptr
#define DISPATCH_TIME_FOREVER (~0ULL)

dispatch_queue_t dispatch_get_global_queue(std::intptr_t priority, std::uintptr_t flags);
dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t attribute);
void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work);
void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work);

dispatch_group_t dispatch_group_create(void);
void dispatch_group_async_f(dispatch_group_t group, dispatch_queue_t queue, void* context, dispatch_function_t work);
std::intptr_t dispatch_group_wait(dispatch_group_t group, dispatch_time_t timeout);

}  // extern "C"

void dispatch_release(dispatch_group_t group);
void dispatch_release(dispatch_queue_t queue);
