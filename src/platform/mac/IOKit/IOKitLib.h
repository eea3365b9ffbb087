// IOKit stand-in: service matching, user-client connections and struct method calls.
// A service of class C exists when <root>/run/quorvex/iokit/C is present; a connection
// talks to whoever serves that Unix socket, one frame pair per call.
#pragma once

#include <cstddef>
#include <cstdint>

#include <mach/mach.h>

using IOReturn = kern_return_t;
using io_object_t = mach_port_t;
using io_service_t = io_object_t;
using io_iterator_t = io_object_t;
using io_connect_t = io_object_t;

struct __IOMatchingDictionary;
using CFMutableDictionaryRef = __IOMatchingDictionary*;
using CFDictionaryRef = __IOMatchingDictionary*;

inline constexpr IOReturn kIOReturnSuccess = 0;
inline constexpr IOReturn kIOReturnError = static_cast<IOReturn>(0xE00002BC);
inline constexpr IOReturn kIOReturnNoMemory = static_cast<IOReturn>(0xE00002BD);
inline constexpr IOReturn kIOReturnBadArgument = static_cast<IOReturn>(0xE00002C2);
inline constexpr IOReturn kIOReturnNotOpen = static_cast<IOReturn>(0xE00002CD);
inline constexpr IOReturn kIOReturnNoDevice = static_cast<IOReturn>(0xE00002C0);
inline constexpr IOReturn kIOReturnIOError = static_cast<IOReturn>(0xE00002CA);
inline constexpr IOReturn kIOReturnNotAttached = static_cast<IOReturn>(0xE00002D9);
inline constexpr IOReturn kIOReturnAborted = static_cast<IOReturn>(0xE00002EB);

inline constexpr mach_port_t kIOMasterPortDefault = 0;

kern_return_t IOMasterPort(mach_port_t bootstrapPort, mach_port_t* masterPort);
// Returns a matching dictionary for the class name, or null when memory is short.
CFMutableDictionaryRef IOServiceMatching(const char* name);
// Consumes one reference of `matching`, as the real call does.
kern_return_t IOServiceGetMatchingServices(mach_port_t masterPort, CFDictionaryRef matching,
                                           io_iterator_t* existing);
io_object_t IOIteratorNext(io_iterator_t iterator);
kern_return_t IOObjectRelease(io_object_t object);
kern_return_t IOServiceOpen(io_service_t service, task_port_t owningTask, uint32_t type,
                            io_connect_t* connect);
kern_return_t IOServiceClose(io_connect_t connect);
// Selector 0: `input` is 8 bytes holding the address of a toolgate request
// (common/toolgate_abi.h). One frame pair is exchanged with the host and the
// completion status is written into the request's status field. A signal handled by the
// calling thread while it waits for the reply ends the call with kIOReturnAborted; a
// thread that keeps the signal blocked goes on waiting.
kern_return_t IOConnectCallStructMethod(mach_port_t connection, uint32_t selector,
                                        const void* input, size_t inputSize, void* output,
                                        size_t* outputSize);
