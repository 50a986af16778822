#pragma once

// How a host receives the module's log lines, and with some of them a record: what the module
// decided, in fields instead of words for people. docs/host.md describes both.

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// One change of the stored subscriptions, one command that was refused or changed something, or the
// beginning or end of one delivery. Texts are NUL-terminated UTF-16, empty where there is nothing to
// say, and those of the first group are stable words.
typedef struct VxLogRecord {
  size_t size;  // of this struct, which later versions lengthen at its end

  const wchar_t* kind;  // "command", "completion", "power", "platform" or "uninstall"
  const wchar_t* decision;
  const wchar_t* reason;

  const wchar_t* subscription;  // its hash
  const wchar_t* target;        // the path of its program, or "FAMILY/APP SERVICE"
  const wchar_t* package;       // the family that an uninstall is about
  const wchar_t* client;        // that sent the command

  uint32_t number;        // the id of a command, or the code of an event
  uint32_t status;        // why Windows or the module failed, as its own number; 0 if neither did
  uint32_t process;       // that was started; 0 if none was
  uint64_t delivery;      // the same in each record of one delivery of this process; 0 for others
  uint64_t milliseconds;  // that a command or a delivery took; of one that waits, its delay
} VxLogRecord;

typedef struct VxLogLine {
  size_t size;               // of this struct, which later versions lengthen at its end
  uint32_t level;            // 0 information, 1 warning, 2 error
  uint32_t thread;           // that logs
  const wchar_t* provider;   // NUL-terminated UTF-16, as the next two
  const wchar_t* caller;     // identity of the client that the line is about; empty if there is none
  const wchar_t* text;
  const VxLogRecord* record;  // null for a line without one
} VxLogLine;

// Is called on the thread that logs, which may hold locks of the module, for one line at a time.
// Must copy what it keeps, return at once, and neither throw nor call the module.
typedef void (*VxLogSink)(const VxLogLine* line, void* context);

// Replaces the sink; null ends it. The earlier one is not called any more when this returns. Any
// thread but one that is in a sink. Find it by its name with GetProcAddress: a module that logs
// through another library does not have it.
void VxSetLogSink(VxLogSink sink, void* context);
typedef void (*VxSetLogSinkFunction)(VxLogSink sink, void* context);

#ifdef __cplusplus
}
#endif
