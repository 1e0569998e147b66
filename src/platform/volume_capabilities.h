// What a volume can do for the compressed form, measured once per volume and
// kept: how large one attribute value may be, whether a compressed file fits
// at all, and whether two names can be swapped atomically.
//
// Volumes are told apart by device number, file-system type and id;
// forget() drops everything learnt.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/error.h"
#include "platform/env.h"

namespace zephlore {

class VolumeCapabilities {
 public:
  VolumeCapabilities() = delete;

  // The largest fork piece the volume of `file` takes, at most 65536 bytes;
  // 0 when it takes no user attributes. Measured on `file` itself (with the
  // attribute "com.quorvane.zephlore.probe", removed again) the first time.
  // None, with the error, when it could not be measured.
  static std::optional<size_t> attributePieceSize(Env& env, const FileRef& file, Error* error);

  // The volume holding `path` (a file or a directory) takes user attributes
  // and a fork of kProbeForkSize bytes. Measured on a scratch file in the
  // directory (unnamed where the file system allows) or in the private
  // temporary directory when it lies on the same volume. False, and nothing
  // kept, when no scratch file can be made there. Only a volume that holds
  // the form is measured once: one that does not is measured again at each
  // call (its file system may have been given larger attributes meanwhile).
  static bool canHoldCompressedForm(Env& env, const std::string& path);
  static constexpr uint64_t kProbeForkSize = 256 * 1024;
  // The largest attribute value the volume holding `path` takes, as
  // canHoldCompressedForm() measured it; none when it was not measured.
  static std::optional<size_t> measuredPieceSize(Env& env, const std::string& path);

  // Two names on the volume holding `path` can be swapped atomically
  // (Env::exchange). Measured with two scratch files, named
  // ".zephlore-exchange-XXXXXX" while in use; those a killed run left in
  // the place of a measurement are removed by the next.
  static bool supportsExchange(Env& env, const std::string& path);

  // Whether `name` (a file name) is one of the scratch files of a
  // measurement: ".zephlore-exchange-XXXXXX" or ".zephlore-probe-XXXXXX".
  static bool isProbeName(std::string_view name);

  static void forget();
};

}  // namespace zephlore
