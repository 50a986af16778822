<#
Runs one command in the service through its pipe and writes the result object (code, response).

    .\vx_client.ps1 -Id 22 -Request '{}'
    .\vx_client.ps1 -Id 22 -Request '{}' -Show      writes the message instead

For Windows PowerShell 5.1 and PowerShell 7, which escape different characters of the request. The account
must be an administrator or one that was allowed at the installation.
#>
[CmdletBinding()]
param(
  [Parameter(Mandatory)] [uint32] $Id,
  [Parameter(Mandatory)] [AllowEmptyString()] [string] $Request,
  [ValidatePattern('^[A-Za-z0-9_.-]+$')] [string] $Service = 'OrvaneService',
  [switch] $Show
)
$ErrorActionPreference = 'Stop'
$longestCommand = 1MB
$longestResult = 64MB

Add-Type -Namespace VxSample -Name Native -MemberDefinition @'
[DllImport("kernel32.dll", CharSet = CharSet.Unicode, SetLastError = true)]
public static extern Microsoft.Win32.SafeHandles.SafePipeHandle CreateFileW(string path, uint access,
    uint share, IntPtr security, uint disposition, uint flags, IntPtr template);
[DllImport("kernel32.dll", SetLastError = true)]
public static extern bool GetNamedPipeServerProcessId(
    Microsoft.Win32.SafeHandles.SafePipeHandle pipe, out uint process);
[DllImport("kernel32.dll", CharSet = CharSet.Unicode, SetLastError = true)]
public static extern bool WaitNamedPipeW(string path, uint milliseconds);
[DllImport("advapi32.dll")]
public static extern uint GetSecurityInfo(Microsoft.Win32.SafeHandles.SafePipeHandle pipe, int type, uint parts,
    out IntPtr owner, IntPtr group, IntPtr dacl, IntPtr sacl, out IntPtr descriptor);
'@

# The second argument makes the encoding throw at an unpaired surrogate instead of replacing it.
$utf8 = New-Object System.Text.UTF8Encoding $false, $true
$message = $utf8.GetBytes((ConvertTo-Json -Compress ([ordered]@{ id = $Id; request = $Request })))
if ($Show) { return $utf8.GetString($message) }
if ($message.Length -gt $longestCommand) { throw 'the request is too long' }

# Not GENERIC_WRITE, which includes the right to create instances. With the identification level, a false
# server can learn who this is, but not act as this account.
$access = 0x12018B
$openExisting = 3
$flags = 0x00100000 -bor 0x00010000  # SECURITY_SQOS_PRESENT, SECURITY_IDENTIFICATION
$kernelObject = 6
$ownerPart = 1  # OWNER_SECURITY_INFORMATION
$owners = 'S-1-5-18', 'S-1-5-32-544'  # SYSTEM and the administrators
$pipeBusy = 231
$patience = 10000  # milliseconds, for a free instance of the pipe
$path = "\\.\pipe\VxHost-$Service"
while ($true) {
  $handle = [VxSample.Native]::CreateFileW($path, $access, 0, [IntPtr]::Zero, $openExisting, $flags,
    [IntPtr]::Zero)
  $failure = [Runtime.InteropServices.Marshal]::GetLastWin32Error()
  if (-not $handle.IsInvalid) { break }
  if ($failure -ne $pipeBusy -or -not [VxSample.Native]::WaitNamedPipeW($path, $patience)) {
    throw (New-Object System.ComponentModel.Win32Exception $failure)
  }
}
$pipe = New-Object System.IO.Pipes.NamedPipeClientStream ([IO.Pipes.PipeDirection]::InOut), $false, $true, $handle
try {
  [uint32] $server = 0
  if (-not [VxSample.Native]::GetNamedPipeServerProcessId($handle, [ref] $server)) {
    throw 'the process of the pipe is unknown, so nothing was sent'
  }
  $running = (Get-CimInstance Win32_Service -Filter "Name='$Service'").ProcessId
  if ($server -eq 0 -or $server -ne $running) {
    throw "process $server has the pipe and is not the service, so nothing was sent"
  }
  # The process that created the pipe may have ended, and the service may have reused its id.
  $sid = $descriptor = [IntPtr]::Zero
  $failure = [VxSample.Native]::GetSecurityInfo($handle, $kernelObject, $ownerPart, [ref] $sid, [IntPtr]::Zero,
    [IntPtr]::Zero, [IntPtr]::Zero, [ref] $descriptor)
  if ($failure -ne 0) { throw (New-Object System.ComponentModel.Win32Exception ([int] $failure)) }
  try {
    $owner = (New-Object System.Security.Principal.SecurityIdentifier $sid).Value
  } finally {
    [Runtime.InteropServices.Marshal]::FreeHGlobal($descriptor)  # LocalFree
  }
  if ($owner -notin $owners) { throw "the pipe belongs to $owner and not to the service, so nothing was sent" }
  $pipe.ReadMode = [IO.Pipes.PipeTransmissionMode]::Message
  $pipe.Write($message, 0, $message.Length)  # one message
  $result = New-Object System.IO.MemoryStream
  $part = New-Object byte[] 65536
  do {
    $count = $pipe.Read($part, 0, $part.Length)
    if ($count -eq 0) { throw 'the service closed the connection' }
    $result.Write($part, 0, $count)
    if ($result.Length -gt $longestResult) { throw 'the result is too long' }
  } until ($pipe.IsMessageComplete)
  ConvertFrom-Json ($utf8.GetString($result.ToArray()))
} finally {
  $pipe.Dispose()
}
