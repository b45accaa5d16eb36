-- Version 4: servers know how their pairing does.

alter table rec_server add column problem text not null default '';
alter table rec_server add column checked_s bigint not null default 0;
alter table rec_server add column seen_s bigint not null default 0;
alter table cms_host add column serial text not null default '';
alter table cms_host add column name text not null default '';
alter table cms_host add column problem text not null default '';
alter table cms_host add column checked_s bigint not null default 0;
alter table cms_host add column seen_s bigint not null default 0;
