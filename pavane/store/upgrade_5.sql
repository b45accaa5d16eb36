-- Version 5: archive tasks, and what other services have to be told.

create table archive_task (
    id           integer primary key {{id}},
    server       text not null,
    name         text not null,
    type         integer not null check (type > 0),
    storage_path text not null,
    unique (server, name)
);

create table service_notice (
    id         integer primary key {{id}},
    service    text not null,
    operation  integer not null,
    path       text not null,
    new_path   text not null,
    afterwards integer not null check (afterwards in (0, 1)),
    time_s     bigint not null
);
