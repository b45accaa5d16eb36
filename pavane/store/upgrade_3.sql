-- Version 3: cameras tell their address and the space they take; applications can be switched off.

alter table camera add column ip text not null default '';
alter table camera add column occupied_mb integer not null default 0;
alter table camera add column rotated_by_space integer not null default 0 check (rotated_by_space in (0, 1));
alter table camera add column rotation_by_space_mb integer not null default 0;
create index shared_folder_storage_by_share on shared_folder_storage (share_id);
create table application (
    id         integer not null primary key,
    compatible integer not null check (compatible in (0, 1)),
    enabled    integer not null check (enabled in (0, 1))
);
