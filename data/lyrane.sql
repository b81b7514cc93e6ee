-- The tables of the last-mode database. Rows are read by the positions of the columns, so their
-- order stays as it is. A database without these tables and columns is set aside and replaced;
-- further ones are left alone.

-- One row for each saved player. A player without a track session has the ts_id -1.
CREATE TABLE IF NOT EXISTS players (
    name TEXT,
    ts_id INTEGER,
    status INTEGER,         -- 1 idle, 2 playing, 3 paused, 4 stopped
    shuffle_mode INTEGER,   -- 0 off, 1 on
    repeat_mode INTEGER,    -- 0 off, 1 all, 2 one
    playback_rate REAL
);

-- One row for each saved track session; ts_id links the three tables.
CREATE TABLE IF NOT EXISTS trksessions (
    ms_plugin_name TEXT,
    ts_id INTEGER,
    ms_type INTEGER,
    ms_uid TEXT,
    mn_id TEXT,             -- the folder that the session was built from
    length INTEGER,         -- tracks
    trk_id INTEGER,         -- index of the current track, from 0
    trk_pos INTEGER         -- position in it, ms
);

-- One row for each track. The key gives their order; an index on ts_id would only slow saving down.
CREATE TABLE IF NOT EXISTS trksession_medianodes (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    ts_id INTEGER,
    mn_id TEXT,
    name TEXT,
    url TEXT,
    mn_type INTEGER,
    ms_uid TEXT,            -- the text NULL when the track has none
    ms_type INTEGER
);
