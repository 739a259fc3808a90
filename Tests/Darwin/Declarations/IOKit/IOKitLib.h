#pragma once
#include <CoreFoundation/CoreFoundation.h>
#include <mach/mach.h>
#include <stddef.h>
#ifdef __cplusplus
extern "C" {
#endif
typedef uint32_t IOOptionBits;
typedef mach_port_t io_object_t, io_connect_t, io_service_t, io_registry_entry_t;
#define IO_OBJECT_NULL ((io_object_t)0)
#define kIOReturnSuccess KERN_SUCCESS
extern const mach_port_t kIOMainPortDefault;
CFMutableDictionaryRef IOServiceMatching(const char* className);
io_service_t IOServiceGetMatchingService(mach_port_t mainPort, CFDictionaryRef matching);
kern_return_t IOServiceOpen(io_service_t service, task_port_t owner, uint32_t type, io_connect_t* connection);
kern_return_t IOServiceClose(io_connect_t connection);
kern_return_t IOConnectCallStructMethod(mach_port_t connection, uint32_t selector, const void* input, size_t inputSize,
                                        void* output, size_t* outputSize);
kern_return_t IOObjectRelease(io_object_t object);
CFTypeRef IORegistryEntryCreateCFProperty(io_registry_entry_t entry, CFStringRef key, CFAllocatorRef allocator,
                                          IOOptionBits options);
#ifdef __cplusplus
}
#endif
