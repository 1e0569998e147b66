// The attributes the system keeps on files, by the system's own names (the
// platform stores each as "user." + name).
#pragma once

namespace zephlore::attr {

inline constexpr const char* kDecmpfs = "com.apple.decmpfs";
// The resource fork; when it is larger than one value may be, the further
// pieces are kResourceFork + ".1", ".2", ...
inline constexpr const char* kResourceFork = "com.apple.ResourceFork";
// The flags word (UF_COMPRESSED and friends), 4 bytes little-endian.
inline constexpr const char* kFlags = "com.quorvane.zephlore.flags";
inline constexpr const char* kExclude = "com.quorvane.zephlore.exclude";
inline constexpr const char* kSignature = "com.quorvane.zephlore.signature";
// Set and removed again while measuring what a volume's attributes hold.
inline constexpr const char* kProbe = "com.quorvane.zephlore.probe";

}  // namespace zephlore::attr
