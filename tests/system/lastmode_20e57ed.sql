-- A dump of the database that the build of commit 20e57ed left, but for the path of the plug-in.
PRAGMA foreign_keys=OFF;
BEGIN TRANSACTION;
CREATE TABLE players (
    name TEXT,
    ts_id INTEGER,
    status INTEGER,         -- 1 idle, 2 playing, 3 paused, 4 stopped
    shuffle_mode INTEGER,   -- 0 off, 1 on
    repeat_mode INTEGER,    -- 0 off, 1 all, 2 one
    playback_rate REAL
);
INSERT INTO players VALUES('p',0,2,1,1,1.0);
CREATE TABLE trksessions (
    ms_plugin_name TEXT,
    ts_id INTEGER,
    ms_type INTEGER,
    ms_uid TEXT,
    mn_id TEXT,             -- the folder that the session was built from
    length INTEGER,         -- tracks
    trk_id INTEGER,         -- index of the current track, from 0
    trk_pos INTEGER         -- position in it, ms
);
INSERT INTO trksessions VALUES('disk.so',0,1,'disk','/a',8,4,0);
CREATE TABLE trksession_medianodes (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    ts_id INTEGER,
    mn_id TEXT,
    name TEXT,
    url TEXT,
    mn_type INTEGER,
    ms_uid TEXT,            -- the text NULL when the track has none
    ms_type INTEGER
);
INSERT INTO trksession_medianodes VALUES(1,0,'/a/t0','Track 1','fake:/a/t0',2,'disk',1);
INSERT INTO trksession_medianodes VALUES(2,0,'/a/t1','Track 2','fake:/a/t1',2,'disk',1);
INSERT INTO trksession_medianodes VALUES(3,0,'/a/t2','Track 3','fake:/a/t2',2,'disk',1);
INSERT INTO trksession_medianodes VALUES(4,0,'/a/t3','Track 4','fake:/a/t3',2,'disk',1);
INSERT INTO trksession_medianodes VALUES(5,0,'/a/t4','Track 5','fake:/a/t4',2,'disk',1);
INSERT INTO trksession_medianodes VALUES(6,0,'/a/t5','Track 6','fake:/a/t5',2,'disk',1);
INSERT INTO trksession_medianodes VALUES(7,0,'/a/t6','Track 7','fake:/a/t6',2,'disk',1);
INSERT INTO trksession_medianodes VALUES(8,0,'/a/t7','Track 8','fake:/a/t7',2,'disk',1);
DELETE FROM sqlite_sequence;
INSERT INTO sqlite_sequence VALUES('trksession_medianodes',8);
COMMIT;
