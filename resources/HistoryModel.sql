-- The history object model: one record per folder the user ever chose to
-- watch. Version 1; a later release migrates from the database's
-- PRAGMA user_version. "enabled" defaults to true here, so a record made
-- without it counts as watched.
CREATE TABLE IF NOT EXISTS History (
  id          INTEGER PRIMARY KEY,
  folder      TEXT,
  folderAlias BLOB,
  enabled     INTEGER NOT NULL DEFAULT 1,
  savings     INTEGER NOT NULL DEFAULT 0,
  lastSweep   REAL,
  status      INTEGER NOT NULL DEFAULT 0
);
PRAGMA user_version = 1;
