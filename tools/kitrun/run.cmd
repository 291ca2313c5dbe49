@echo off
rem Tries everything out on this machine and writes result.txt; run.cmd /? tells more.
if not exist "%~dp0kitrun.exe" (
    echo Unpack the whole archive first, then run run.cmd in the folder that comes out of it.
    exit /b 2
)
"%~dp0kitrun.exe" %*
exit /b %ERRORLEVEL%
