// The programs that start one another, by the names they are installed as.
#pragma once

namespace zephlore {

inline constexpr const char* kCommandProgram = "zephlore";
inline constexpr const char* kHelperProgram = "zephlore-helper";
inline constexpr const char* kPreferencesProgram = "zephlore-preferences";

}  // namespace zephlore
