// Every notification name, with its user-info keys: those that travel
// between the helper and the `zephlore` command (or any other program of the
// login) on the session bus, and those the helper's parts post to each other. The writer of a shared file changes the file first and posts the name
// afterwards; the receiver reads the file again in full.
#pragma once

namespace zephlore {

// --- Pane -> helper --------------------------------------------------------

// The helper shuts down in order.
inline constexpr const char* kHelperShouldQuitNotification = "krimbleHelperShouldQuit";
// Kept for the pane's vocabulary; nobody observes it.
inline constexpr const char* kHelperShouldKeepAliveNotification = "krimbleHelperShouldKeepAlive";
// "active" in "defaults.plist" changed: re-read it, re-apply folders and icon.
inline constexpr const char* kActiveStatusNotification = "com.quorvane.krimble.active";
// "visible" in "defaults.plist" changed: show or hide the status item.
inline constexpr const char* kVisibilityNotification = "com.quorvane.zephlore.visible";
// Check for an update now.
inline constexpr const char* kShouldCheckForUpdatesNotification =
    "krimbleHelperShouldCheckForUpdates";
// Automatic update checks on / off.
inline constexpr const char* kEnableUpdatesNotification = "krimbleHelperEnableUpdates";
inline constexpr const char* kDisableUpdatesNotification = "krimbleHelperDisableUpdates";
// The pane's version; a different one makes the helper relaunch.
inline constexpr const char* kVersionNotification = "com.quorvane.zephlore.version";
inline constexpr const char* kVersionKey = "version";
// Watched folders added or removed.
inline constexpr const char* kFoldersNotification = "com.quorvane.krimble.folders";
inline constexpr const char* kFoldersToAddKey = "foldersToAdd";
inline constexpr const char* kFoldersToRemoveKey = "foldersToRemove";
// "excludedPaths.plist" / "excludedExtensions.plist" changed.
inline constexpr const char* kExcludedPathsNotification = "com.quorvane.krimble.excludedPaths";
inline constexpr const char* kExcludedExtensionsNotification =
    "com.quorvane.krimble.excludedExtensions";

// --- Helper -> pane --------------------------------------------------------

// Posted once at start-up after an update (delivered immediately).
inline constexpr const char* kRestartingAfterUpdateNotification =
    "com.quorvane.zephlore.restarting.after.update";
// The updater is about to relaunch the helper.
inline constexpr const char* kQuitNotification = "com.quorvane.zephlore.quit";
// Show the savings history.
inline constexpr const char* kShowHistoryNotification = "com.quorvane.zephlore.show.history";
// The history database was saved.
inline constexpr const char* kSavingsChangedNotification = "krimbleSavingsChanged";

// --- Inside the helper (its NotificationCenter; the desktop parts listen) --

// The first analysis began / the last one ended.
inline constexpr const char* kAnalysisStartedNotification = "analysisStarted";
inline constexpr const char* kAnalysisEndedNotification = "analysisEnded";
// The compressor's queue got work / ran dry.
inline constexpr const char* kCompressionStartedNotification = "compressionStarted";
inline constexpr const char* kCompressionEndedNotification = "compressionEnded";
// Posted on the compression thread as a file is taken in hand (kFileCompressedPathKey).
inline constexpr const char* kFileWillCompressNotification = "KRFileWillCompressNotification";
// A file's compression ended (kFileCompressedPathKey, kFileCompressedErrorKey).
inline constexpr const char* kFileCompressedNotification = "KRFileCompressedNotification";
inline constexpr const char* kFileCompressedPathKey = "path";
inline constexpr const char* kFileCompressedErrorKey = "errorCode";  // an Error; absent on success

}  // namespace zephlore
