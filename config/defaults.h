/// The default servers. A deployment sets its own in CMake variables of the same names, which
/// arrive here as definitions.
#pragma once

#ifndef ZARO_CONTROL_HOST_A
#define ZARO_CONTROL_HOST_A "control-a.zaro.example"
#endif
#ifndef ZARO_CONTROL_HOST_B
#define ZARO_CONTROL_HOST_B "control-b.zaro.example"
#endif
#ifndef ZARO_ALIAS_URL
#define ZARO_ALIAS_URL "https://aliasinfo.zaro.example"
#endif
