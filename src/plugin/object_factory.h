// The module's two exports. Names are compared without regard to case, in the order
// "boottime", "boottimecomm", "boottimecommclient"; nothing else is made here.
#pragma once

#include <windows.h>

#include <cstdint>

extern "C" {
// 0 with *out set; 13 for a null out pointer or name (*out null in the latter case);
// 1168 for an unknown name or an identifier the object does not answer (nothing left
// alive); 14 when the boot-time plug-in cannot be constructed.
std::uint32_t __cdecl KyCreateObject(const wchar_t* name, const GUID* iid, void** out);

// Destroys an object made under the same name. A null object only logs; an unknown name
// does nothing.
void __cdecl KyDestroyObject(const wchar_t* name, void* object);
}
