"""Runs one command in the service through its pipe and prints the result.

    python vx_client.py [--service NAME] ID REQUEST
    python vx_client.py --show ID REQUEST     prints the message instead, on any system

Exits with 0 if the result code is 0, with 1 if it is not, and with 2 if the service cannot be reached.
Needs only Python 3.8 and Windows. The account must be an administrator or one that was allowed when the
service was installed.
"""
import argparse
import json
import sys

ACCESS = 0x12018B  # read and write data and attributes, read the owner; GENERIC_WRITE includes creating instances
OPEN_EXISTING = 3
SECURITY_SQOS_PRESENT = 0x00100000
SECURITY_IDENTIFICATION = 0x00010000  # a fake server can identify this account, but not act as it
PIPE_READMODE_MESSAGE = 2
ERROR_MORE_DATA = 234
ERROR_PIPE_BUSY = 231
SC_MANAGER_CONNECT = 1
SERVICE_QUERY_STATUS = 4
SC_STATUS_PROCESS_INFO = 0
SE_KERNEL_OBJECT = 6
OWNER_SECURITY_INFORMATION = 1
OWNERS = ("S-1-5-18", "S-1-5-32-544")  # SYSTEM and the administrators
LONGEST_COMMAND = 1 << 20
LONGEST_RESULT = 64 << 20
PATIENCE = 10000  # milliseconds, for a free instance of the pipe


def message_of(command, request):
    """Returns the bytes of a command, with all non-ASCII characters escaped."""
    message = json.dumps({"id": command, "request": request}, separators=(",", ":")).encode("ascii")
    if len(message) > LONGEST_COMMAND:
        raise ValueError("the request is too long")
    return message


def execute(service, message):
    """Sends a message to the service and returns the bytes of its result."""
    import ctypes
    from ctypes import wintypes

    kernel = ctypes.WinDLL("kernel32", use_last_error=True)
    advapi = ctypes.WinDLL("advapi32", use_last_error=True)
    kernel.CreateFileW.restype = wintypes.HANDLE
    kernel.CreateFileW.argtypes = (wintypes.LPCWSTR, wintypes.DWORD, wintypes.DWORD, wintypes.LPVOID,
                                   wintypes.DWORD, wintypes.DWORD, wintypes.HANDLE)
    kernel.WaitNamedPipeW.argtypes = (wintypes.LPCWSTR, wintypes.DWORD)
    kernel.GetNamedPipeServerProcessId.argtypes = (wintypes.HANDLE, wintypes.PDWORD)
    kernel.SetNamedPipeHandleState.argtypes = (wintypes.HANDLE, wintypes.PDWORD, wintypes.LPVOID,
                                               wintypes.LPVOID)
    for name in ("ReadFile", "WriteFile"):
        getattr(kernel, name).argtypes = (wintypes.HANDLE, wintypes.LPVOID, wintypes.DWORD, wintypes.PDWORD,
                                          wintypes.LPVOID)
    kernel.CloseHandle.argtypes = (wintypes.HANDLE,)
    kernel.LocalFree.argtypes = (wintypes.LPVOID,)
    for name in ("OpenSCManagerW", "OpenServiceW"):
        getattr(advapi, name).restype = wintypes.HANDLE
    advapi.OpenSCManagerW.argtypes = (wintypes.LPCWSTR, wintypes.LPCWSTR, wintypes.DWORD)
    advapi.OpenServiceW.argtypes = (wintypes.HANDLE, wintypes.LPCWSTR, wintypes.DWORD)
    advapi.QueryServiceStatusEx.argtypes = (wintypes.HANDLE, ctypes.c_int, wintypes.LPVOID, wintypes.DWORD,
                                            wintypes.PDWORD)
    advapi.CloseServiceHandle.argtypes = (wintypes.HANDLE,)
    pointer = ctypes.POINTER(wintypes.LPVOID)
    advapi.GetSecurityInfo.argtypes = (wintypes.HANDLE, ctypes.c_int, wintypes.DWORD, pointer, pointer, pointer,
                                       pointer, pointer)
    advapi.ConvertSidToStringSidW.argtypes = (wintypes.LPVOID, ctypes.POINTER(wintypes.LPWSTR))

    def check(succeeded):
        if not succeeded:
            raise ctypes.WinError(ctypes.get_last_error())
        return succeeded

    def process_of_service():
        manager = check(advapi.OpenSCManagerW(None, None, SC_MANAGER_CONNECT))
        try:
            handle = check(advapi.OpenServiceW(manager, service, SERVICE_QUERY_STATUS))
            try:
                status = (wintypes.DWORD * 9)()  # SERVICE_STATUS_PROCESS; the eighth is the process id
                needed = wintypes.DWORD()
                check(advapi.QueryServiceStatusEx(handle, SC_STATUS_PROCESS_INFO, status,
                                                  ctypes.sizeof(status), ctypes.byref(needed)))
                return status[7]
            finally:
                advapi.CloseServiceHandle(handle)
        finally:
            advapi.CloseServiceHandle(manager)

    def owner_of(pipe):
        owner, descriptor, text = wintypes.LPVOID(), wintypes.LPVOID(), wintypes.LPWSTR()
        error = advapi.GetSecurityInfo(pipe, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION, ctypes.byref(owner), None,
                                       None, None, ctypes.byref(descriptor))
        if error != 0:
            raise ctypes.WinError(error)
        try:
            check(advapi.ConvertSidToStringSidW(owner, ctypes.byref(text)))
            try:
                return text.value
            finally:
                kernel.LocalFree(ctypes.cast(text, wintypes.LPVOID))
        finally:
            kernel.LocalFree(descriptor)

    path = "\\\\.\\pipe\\VxHost-" + service
    invalid = wintypes.HANDLE(-1).value
    while True:
        pipe = kernel.CreateFileW(path, ACCESS, 0, None, OPEN_EXISTING,
                                  SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, None)
        if pipe != invalid:
            break
        error = ctypes.get_last_error()
        if error != ERROR_PIPE_BUSY:
            raise ctypes.WinError(error)
        check(kernel.WaitNamedPipeW(path, PATIENCE))
    try:
        server = wintypes.DWORD()
        check(kernel.GetNamedPipeServerProcessId(pipe, ctypes.byref(server)))
        if server.value == 0 or server.value != process_of_service():
            raise OSError("process %d has the pipe and is not the service, so nothing was sent" % server.value)
        # The process that created the pipe may have ended, and the service may have reused its id.
        owner = owner_of(pipe)
        if owner not in OWNERS:
            raise OSError("the pipe belongs to %s and not to the service, so nothing was sent" % owner)
        mode = wintypes.DWORD(PIPE_READMODE_MESSAGE)
        check(kernel.SetNamedPipeHandleState(pipe, ctypes.byref(mode), None, None))
        count = wintypes.DWORD()
        check(kernel.WriteFile(pipe, message, len(message), ctypes.byref(count), None))
        result = b""
        part = ctypes.create_string_buffer(65536)
        while True:  # until the message is complete
            whole = kernel.ReadFile(pipe, part, len(part), ctypes.byref(count), None)
            if not whole and ctypes.get_last_error() != ERROR_MORE_DATA:
                raise ctypes.WinError(ctypes.get_last_error())
            result += part.raw[:count.value]
            if whole:
                return result
            if len(result) > LONGEST_RESULT:
                raise OSError("the result is too long")
    finally:
        kernel.CloseHandle(pipe)


def main():
    parser = argparse.ArgumentParser(description="Runs one command in the service.")
    parser.add_argument("--service", default="OrvaneService", metavar="NAME")
    parser.add_argument("--show", action="store_true", help="print the message and send nothing")
    parser.add_argument("id", type=int)
    parser.add_argument("request")
    arguments = parser.parse_args()
    if not 0 <= arguments.id <= 0xFFFFFFFF:
        parser.error("the command is a whole number of 32 bits")
    if "\0" in arguments.request:
        parser.error("the request must not contain a null character")
    try:
        message = message_of(arguments.id, arguments.request)
        if arguments.show:
            sys.stdout.buffer.write(message)
            return 0
        result = json.loads(execute(arguments.service, message).decode("utf-8"))
    except (OSError, ValueError) as error:
        print(error, file=sys.stderr)
        return 2
    print("0x%08x %s" % (result["code"], ascii(result.get("response"))))
    return 0 if result["code"] == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
