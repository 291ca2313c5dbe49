#pragma once
// What the generated header of the interfaces includes for its imported types: the system's own declarations.
#include <windows.h>

#include <oaidl.h>
