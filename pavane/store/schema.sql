-- The application database. One text for both back ends; {{id}} is a key that the database counts up and never
-- gives twice, {{prefix}} lets PostgreSQL use an index for "begins with" (SQLite needs nothing for that).
-- Booleans are 0 or 1. The version is written by whoever runs this text (pavane/store/schema.cpp).

create table schema_version (
    version integer not null
);

-- Named settings of the application, among them its role in central management.
create table setting (
    name  text not null primary key,
    value text not null
);

-- Folders that the application has adopted as places for recordings. owner_rv_id 0 is this server.
create table recording_share (
    id                integer primary key {{id}},
    id_on_rec         integer not null,
    owner_rv_id       integer not null,
    name              text not null,
    path              text not null,
    volume            text not null,
    description       text not null,
    hidden            integer not null check (hidden in (0, 1)),
    enc_type          integer not null,
    fs_type           integer not null,
    mount_type        integer not null,
    mount_source      text not null,
    mount_status      integer not null,
    auto_mount        integer not null check (auto_mount in (0, 1)),
    migrating         integer not null check (migrating in (0, 1)),
    rec_limit_gb      integer not null,
    enable_rec_limit  integer not null check (enable_rec_limit in (0, 1)),
    -- An unsigned 64-bit number: from 2^63 on it stands here as the negative number of the same bits.
    total_size_mb     bigint not null,
    unique (owner_rv_id, path)
);
create index recording_share_on_rec on recording_share (owner_rv_id, id_on_rec);

-- Cameras that record into the shares; recording_path is "<share path>/<camera folder>" or empty.
-- rec_storage_status 1: the camera's recordings are kept elsewhere, its folder is not in use.
-- rotated_by_space 1: its oldest recordings go when less than rotation_by_space_mb is free.
create table camera (
    id                 integer primary key {{id}},
    owner_rv_id        integer not null,
    name               text not null,
    recording_path     text not null,
    rec_storage_status integer not null,
    ip                 text not null default '',
    occupied_mb        integer not null default 0,
    rotated_by_space   integer not null default 0 check (rotated_by_space in (0, 1)),
    rotation_by_space_mb integer not null default 0,
    unique (owner_rv_id, name)
);
create index camera_by_folder on camera (owner_rv_id, recording_path {{prefix}});
-- Holds all that the list of cameras gives, in its order.
create index camera_by_owner on camera (owner_rv_id, id, recording_path);

-- Which application uses which shared folder.
create table shared_folder_storage (
    name           text not null,
    share_id       integer,
    application_id integer
);
create index shared_folder_storage_by_name on shared_folder_storage (name);
create index shared_folder_storage_by_share on shared_folder_storage (share_id);

-- What differs from how the package's applications come: compatible and enabled, all of them.
create table application (
    id         integer not null primary key,
    compatible integer not null check (compatible in (0, 1)),
    enabled    integer not null check (enabled in (0, 1))
);

-- The recording servers that this host manages. status: RV_STATUS. standby: takes over for others;
-- taken_over: another one does its work at the moment. problem: why it is not online, a word of
-- pavane/cms/server_state.h; checked_s, seen_s: when it was last asked and last answered, unix seconds.
create table rec_server (
    id          integer primary key {{id}},
    serial      text not null unique,
    name        text not null default '',
    address     text not null default '',
    enabled     integer not null default 1 check (enabled in (0, 1)),
    status      integer not null default 1,
    version     text not null default '',
    standby     integer not null default 0 check (standby in (0, 1)),
    taken_over  integer not null default 0 check (taken_over in (0, 1)),
    pair_secret text not null default '',
    pinned_key  text not null default '',
    problem     text not null default '',
    checked_s   bigint not null default 0,
    seen_s      bigint not null default 0
);

-- The host that manages this server: at most one row.
create table cms_host (
    id          integer not null primary key check (id = 1),
    own_serial  text not null,
    address     text not null,
    pair_secret text not null,
    pinned_key  text not null default '',
    serial      text not null default '',
    name        text not null default '',
    problem     text not null default '',
    checked_s   bigint not null default 0,
    seen_s      bigint not null default 0
);

-- Stamps of pairing keys that were accepted; each is kept until its time would refuse it anyway.
create table pair_stamp (
    stamp     text not null primary key,
    expires_s bigint not null
);
create index pair_stamp_by_expiry on pair_stamp (expires_s);

-- What happened. arguments: a JSON array of texts. rv_id: the recording server it happened on, 0 = here.
create table event (
    id        integer primary key {{id}},
    time_ms   bigint not null,
    type      bigint not null,
    user_name text not null,
    item_id   bigint not null,
    arguments text not null,
    rv_id     integer not null default 0
);

-- Links in <state folder>/links that lead to the recording shares of this server.
create table service_link (
    name     text not null primary key,
    share_id integer not null references recording_share (id) on delete cascade
);
create index service_link_by_share on service_link (share_id);

-- Shared folders that the application uses and a backup should therefore know of.
create table backup_folder (
    name    text not null primary key,
    added_s bigint not null
);

-- Tasks that archive recordings of, or into, a storage path. server: empty = this one.
create table archive_task (
    id           integer primary key {{id}},
    server       text not null,
    name         text not null,
    type         integer not null check (type > 0),
    storage_path text not null,
    unique (server, name)
);

-- What other services of the application have not taken yet. operation: SHARE_OPERATION.
create table service_notice (
    id         integer primary key {{id}},
    service    text not null,
    operation  integer not null,
    path       text not null,
    new_path   text not null,
    afterwards integer not null check (afterwards in (0, 1)),
    time_s     bigint not null
);
