-- Version 2: events name the server they happened on; the list of cameras is read from an index alone.

alter table event add column rv_id integer not null default 0;
create index camera_by_owner on camera (owner_rv_id, id, recording_path);
