#pragma once

// How a host receives the module's log lines. Some lines carry a record, which describes the
// module's decision as separate fields. docs/host.md describes both.

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Describes one change to the stored subscriptions, one command that was rejected or that changed
// something, or the start or end of one delivery. Strings are NUL-terminated UTF-16 and may be
// empty. The strings in the first group are fixed keywords that programs may compare.
typedef struct VxLogRecord {
  size_t size;  // of this struct; later versions append members

  const wchar_t* kind;  // "command", "completion", "power", "platform" or "uninstall"
  const wchar_t* decision;
  const wchar_t* reason;

  const wchar_t* subscription;  // the subscription's hash
  const wchar_t* target;        // the program's path, or "FAMILY/APP SERVICE"
  const wchar_t* package;       // the family name of an uninstalled package
  const wchar_t* client;        // the sender of the command

  uint32_t number;        // a command's id or an event's code
  uint32_t status;        // the Windows error or the module's own, 0 if none
  uint32_t process;       // ID of the started process, 0 if none
  uint64_t delivery;      // the same in all records of one delivery in this process, 0 in others
  uint64_t milliseconds;  // duration of a command or a delivery, or a waiting delivery's delay
} VxLogRecord;

typedef struct VxLogLine {
  size_t size;              // of this struct; later versions append members
  uint32_t level;           // 0 information, 1 warning, 2 error
  uint32_t thread;          // the logging thread
  const wchar_t* provider;  // NUL-terminated UTF-16, like the next two
  const wchar_t* caller;    // identity of the client that the line is about, or empty
  const wchar_t* text;
  const VxLogRecord* record;  // or null
} VxLogLine;

// Receives one line at a time on the logging thread, which may hold the module's locks. Must copy
// what it keeps, return at once, and neither throw nor call the module.
typedef void (*VxLogSink)(const VxLogLine* line, void* context);

// Replaces the sink, or removes it if `sink` is null. The previous sink is not called after this
// returns. May be called on any thread, but not from a sink. Look this function up with
// GetProcAddress: a module that logs through another library does not export it.
void VxSetLogSink(VxLogSink sink, void* context);
typedef void (*VxSetLogSinkFunction)(VxLogSink sink, void* context);

#ifdef __cplusplus
}
#endif
