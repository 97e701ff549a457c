// The names a host uses with CorvaneStore: its options, the notifications it posts, the
// user-defaults keys it keeps and the kinds of loading issue it reports.
#pragma once

namespace corvane {

// ---- Store options ------------------------------------------------------------------------
inline constexpr const char* kCorvanePasswordOption = "password";
inline constexpr const char* kCorvaneCacheRootURLOption = "CorvaneCacheRootURL";  // a path or file URL
inline constexpr const char* kCorvaneUpToChangeOption = "CorvaneUpToChange";      // a change dictionary
inline constexpr const char* kCorvaneDocumentIdentifierOption = "DocumentIdentifier";
inline constexpr const char* kCorvaneDocumentInfoOption = "DocumentInfo";
inline constexpr const char* kCorvaneDocumentOptionsOption = "DocumentOptions";
inline constexpr const char* kCorvaneAnonymizeOptions = "CorvaneAnonymizeOptions";
inline constexpr const char* kCorvaneBusyWindowControllerOptionsKey = "CorvaneBusyWindowControllerOptionsKey";
inline constexpr const char* kRemoveUbiquitousMetadataOption = "NSPersistentStoreRemoveUbiquitousMetadataOption";
// Recovery mode (true): the update pass goes on past damaged or missing change files. What the
// platform's Option key held at opening used to mean.
inline constexpr const char* kCorvaneRecoverOption = "CorvaneRecover";
// Seconds before a deferred or failed update pass is tried again (default 10).
inline constexpr const char* kCorvaneUpdateRetryDelayOption = "CorvaneUpdateRetryDelay";
// Seconds of quiet after the last file event before an update pass runs (default 5).
inline constexpr const char* kCorvaneChangeDebounceDelayOption = "CorvaneChangeDebounceDelay";
// Seconds over which file events of the Changes folder are gathered into one batch (default 2).
inline constexpr const char* kCorvaneEventLatencyOption = "CorvaneEventLatency";
// A StoreEnvironment object value (store_environment.h).
inline constexpr const char* kCorvaneStoreEnvironmentOption = "CorvaneStoreEnvironment";

// ---- Notifications (NotificationCenter::defaultCenter()) ---------------------------------
// Object: the store; user info {"count": objects to write, "context": the saving context}.
inline constexpr const char* kCorvaneBeginSaveNotification = "CorvaneBeginSave";
// Object: the context; user info: kInsertedObjectsKey, kUpdatedObjectsKey, kDeletedObjectsKey.
inline constexpr const char* kCorvaneObjectsWillChangeExternallyNotification = "CorvaneObjectsWillChangeExternally";
inline constexpr const char* kCorvaneObjectsChangedInManagingContextNotification =
    "_NSObjectsChangedInManagingContextPrivateNotification";
inline constexpr const char* kCorvaneObjectsDidChangeExternallyNotification = "CorvaneObjectsDidChangeExternally";
inline constexpr const char* kCorvaneDidFinishLoadingNotification = "CorvaneDidFinishLoading";  // object: the store
inline constexpr const char* kCorvaneReadyNotification = "CorvaneReady";  // no object; after every update pass

// ---- User-defaults keys ---------------------------------------------------------------------
inline constexpr const char* kCorvaneRecentFilesKey = "CorvaneRecentFiles";
inline constexpr const char* kCorvaneOverwrittenFilesKey = "CorvaneOverwrittenFiles";

// ---- Loading issues -------------------------------------------------------------------------
inline constexpr const char* kLoadingIssueRemoteFile = "Remote File";
inline constexpr const char* kLoadingIssueMissingFile = "Missing File";
inline constexpr const char* kLoadingIssueEmptyFile = "Empty File";
inline constexpr const char* kLoadingIssueUndecryptableFile = "Undecryptable File";
inline constexpr const char* kLoadingIssueLoadingPerformance = "Loading Performance";

}  // namespace corvane
