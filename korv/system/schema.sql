-- The NAS side's own database, korv.db: one SQLite file per machine, in the state folder.
-- A fresh database is made from this file alone; one of an older version is brought to the same shape by the
-- steps in schema.cpp. Whoever changes a table here raises kSchemaVersion there and adds a step.
-- Times are unix seconds. Flags are 0 or 1.

-- Sessions of people who logged in. Only hashes of the secrets are kept.
create table session (
    id_hash      text primary key,
    account      text not null,
    csrf_hash    text not null,
    created_s    integer not null,
    last_seen_s  integer not null,
    remote_ip    text not null
) without rowid;

create index session_last_seen on session (last_seen_s);

-- Logins that were refused, to slow down guessing.
create table login_failure (
    remote_ip    text not null,
    at_s         integer not null
);

create index login_failure_remote_ip on login_failure (remote_ip, at_s);
create index login_failure_at on login_failure (at_s);

-- Shared folders: a row here and a folder vol_path/name exist together.
--   name_key  the name without regard to case (share_name.h); two shares never have the same
--   token     marks the folder as this row's (extended attribute trusted.korv.share)
--   former_name  what it was called before it was last renamed, as long as no other share of the volume has been
--                called so since; "" = none
create table share (
    name_key          text primary key,
    name              text not null,
    vol_path          text not null,
    token             text not null unique,
    description       text not null,
    is_hidden         integer not null,
    encryption        integer not null,
    enable_share_cow  integer not null,
    enable_fileindex  integer not null,
    disable_modify    integer not null,
    is_moving         integer not null default 0,
    created_s         integer not null,
    former_name       text not null default ''
) without rowid;

create unique index share_name on share (name);
create index share_former_name on share (former_name) where former_name <> '';

-- Journal of shares being created. A row is written before the folder is made and goes away in the transaction
-- that writes the share's row; one whose maker is dead is finished or undone (share_recovery.h).
--   maker_*  the process that creates: id, start time in clock ticks since boot, boot id. Id 0 = given up
create table share_creation (
    name_key          text primary key,
    name              text not null,
    vol_path          text not null,
    token             text not null unique,
    description       text not null,
    is_hidden         integer not null,
    encryption        integer not null,
    enable_share_cow  integer not null,
    enable_fileindex  integer not null,
    disable_modify    integer not null,
    created_s         integer not null,
    maker_pid         integer not null,
    maker_start       integer not null,
    maker_boot_id     text not null
) without rowid;

-- Journal of rights being granted on a share's folder; one whose maker is dead is granted again.
--   kind    'user' or 'group'
--   rights  bits: 1 = read and write, 2 = read only
create table share_grant (
    id             integer primary key,
    name_key       text not null references share (name_key) on delete cascade on update cascade,
    kind           text not null,
    principal      text not null,
    rights         integer not null,
    maker_pid      integer not null,
    maker_start    integer not null,
    maker_boot_id  text not null
);

create index share_grant_name_key on share_grant (name_key);

-- Who may use which application, and from where.
--   address_range  "" = from anywhere, else an address or a range in CIDR notation, IPv4 or IPv6
create table app_privilege (
    account        text not null,
    app            text not null,
    address_range  text not null,
    primary key (account, app, address_range)
) without rowid;

-- Remote folders mounted inside shares. The account for one stands in <stateDir>/mounts/<token>.account.
--   owner       the account that may manage it besides administrators; "" = none
--   state       'making' and 'removing': under way, undone or finished when the maker is dead; 'kept': stays
--   guard       what keeps people from writing while nothing is mounted: 0 nothing yet, 1 the folder is
--               immutable, 2 nobody has a right on it (guard_mode holds its mode)
--   status      0 = mounted and alive when last looked at, 1 = not
--   last_error  code of the last failed attempt, 0 = none
--   failures    failed attempts in a row; the next automatic one is due at next_try_s
--   has_account 1 = it is never tried without its account, as a guest
create table mount (
    mount_point     text primary key,
    share           text not null,
    token           text not null unique,
    type            text not null,
    source          text not null,
    options         text not null,
    owner           text not null,
    auto_mount      integer not null,
    state           text not null,
    maker_pid       integer not null,
    maker_start     integer not null,
    maker_boot_id   text not null,
    is_folder_made  integer not null,
    guard           integer not null,
    guard_mode      integer not null,
    status          integer not null,
    last_error      integer not null,
    failures        integer not null,
    next_try_s      integer not null,
    has_account     integer not null default 0
) without rowid;

-- Journal of shares being renamed. The new name is claimed by the row; one whose maker is dead is finished when
-- the folder has got its new name, and undone otherwise (share_rename.h).
create table share_rename (
    token          text primary key,
    name_key       text not null unique,
    name           text not null,
    maker_pid      integer not null,
    maker_start    integer not null,
    maker_boot_id  text not null
) without rowid;

-- Journal of shares being removed; goes on until nothing is left (share_removal.h).
--   is_hidden  1: the share's row is gone and its folder has its hidden name; what is left is freeing the space
create table share_removal (
    token          text primary key,
    name           text not null,
    vol_path       text not null,
    is_hidden      integer not null,
    next_try_s     integer not null,
    maker_pid      integer not null,
    maker_start    integer not null,
    maker_boot_id  text not null
) without rowid;

-- Jobs that move all of a share into another kind of folder. A password that one needs stands in
-- <stateDir>/jobs/<id>.password as long as the job is not over.
--   kind             'encrypt' or 'decrypt'
--   state            'waiting', 'progressing', 'finished', 'cancelled' or 'failed'; the last three are for good
--   error            why it failed or waits: ChangeEnd (share_change.h), 0 = for no reason
--   step, reason     MoveStep and MoveEnd (share_move.h)
--   changed_since_s  what changed in the folder since then was not looked at yet
--   switched_s       not later than the moment at which the folder was exchanged
--   runner_*         the process that works on it
create table job (
    id               integer primary key autoincrement,
    kind             text not null,
    share_token      text not null,
    share            text not null,
    state            text not null,
    is_cancel_asked  integer not null default 0,
    error            integer not null default 0,
    percent          integer not null default 0,
    step             integer not null default 0,
    reason           integer not null default 0,
    total_bytes      integer not null default 0,
    copied_bytes     integer not null default 0,
    verified_bytes   integer not null default 0,
    changed_since_s  integer not null default 0,
    switched_s       integer not null default 0,
    next_try_s       integer not null default 0,
    created_s        integer not null,
    ended_s          integer not null default 0,
    runner_pid       integer not null default 0,
    runner_start     integer not null default 0,
    runner_boot_id   text not null default ''
);

create unique index job_under_way on job (share_token) where state in ('waiting', 'progressing');
