-- The history object model: one record per folder the user ever chose to
-- watch, and the total saved over time. Version 2. Every statement here may
-- run over an older version's database (IF NOT EXISTS): that is how a store
-- opened on version 1 gains what version 2 added. "enabled" defaults to true
-- here, so a record made without it counts as watched.
CREATE TABLE IF NOT EXISTS History (
  id          INTEGER PRIMARY KEY,
  folder      TEXT,
  folderAlias BLOB,
  enabled     INTEGER NOT NULL DEFAULT 1,
  savings     INTEGER NOT NULL DEFAULT 0,
  lastSweep   REAL,
  status      INTEGER NOT NULL DEFAULT 0
);
-- Version 2: the total saved (the sum of History.savings) after a save that
-- changed it, at most one row a minute of the helper's clock (a later save
-- within the minute updates that minute's row). Time in Unix seconds.
CREATE TABLE IF NOT EXISTS Samples (
  time        REAL PRIMARY KEY,
  totalSaved  INTEGER NOT NULL
);
PRAGMA user_version = 2;
