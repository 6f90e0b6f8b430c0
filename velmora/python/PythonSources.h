// The Python code that runs inside the server, as it stands in the files beside this one.
#pragma once

namespace Velmora {

extern const char* const VelmoraModuleSource;  // velmora.py
extern const char* const ReloadSource;         // reload.py

}  // namespace Velmora
