@echo off
rem acceptance.cmd [QUICK]: runs everything of this folder on this machine and leaves one report,
rem report.txt in %TEMP%\OrvaneAcceptance. Exit code 0: all parts passed. A blank precedes each >>,
rem because a digit there would be the number of a handle. Run it as administrator, and
rem go through CHECKLIST.md afterwards. With QUICK it leaves out the test programs that take long.
rem The PC stays as it was: nothing here starts the module or sends it a command that acts on the PC.
setlocal
set "kit=%~dp0"
set "out=%TEMP%\OrvaneAcceptance"
set "report=%out%\report.txt"
set failed=0
if not exist "%out%" mkdir "%out%"
echo OrvaneService acceptance >"%report%"
ver >>"%report%"

rem Its findings are for the reader of the report: only a module that cannot be used is a failure.
call :must examination "%kit%vxhost.exe" --dll "%kit%OrvaneService.dll" doctor
call :must version "%kit%vxhost.exe" --dll "%kit%OrvaneService.dll" --private-store exec 22
call :must first_boot "%kit%vxhost.exe" --simulate scenario "%kit%scenarios\first_boot.json"
for %%t in (json security platform launch) do call :must %%t_test "%kit%tests\%%t_test.exe"
if not "%1"=="QUICK" for %%t in (storage events packages standins) do call :must %%t_test "%kit%tests\%%t_test.exe"

if %failed%==0 (echo ALL PARTS PASSED >>"%report%") else (echo SOME PARTS FAILED >>"%report%")
type "%report%" | find "==="
echo The report is %report%
exit /b %failed%

rem must NAME PROGRAM ARG...: runs a program, appends its output and exit code to the report, and
rem counts a failure unless it ends with 0, or with 1 for findings of the examination.
:must
set "name=%1"
set "line="
:next
shift
if not "%~1"=="" (
  set line=%line% %1
  goto next
)
echo === %name% >>"%report%"
%line% >>"%report%" 2>&1
set code=%errorlevel%
echo === %name% ends with %code% >>"%report%"
if %name%==examination if %code%==1 exit /b 0
if not %code%==0 set failed=1
exit /b %code%
