-- The panel's tables, as far as the mail configuration is kept in them.
set names utf8mb4;

create table clients (
  id int unsigned not null auto_increment,
  login varchar(60) not null,
  full_name varchar(255) not null default '',
  email varchar(255) null,
  status bigint unsigned not null default 0,
  primary key (id),
  unique key login (login)
) engine=InnoDB default charset=utf8mb4;

-- One row for each limit of a set; a domain names its set.
create table Limits (
  id int unsigned not null,
  limit_name varchar(60) not null,
  value varchar(255) null,
  primary key (id, limit_name)
) engine=InnoDB default charset=utf8mb4;

-- One row for each parameter of a set; a domain's service names its set.
create table Parameters (
  id int unsigned not null,
  parameter varchar(60) not null,
  value mediumtext null,
  primary key (id, parameter)
) engine=InnoDB default charset=utf8mb4;

-- Names are compared byte by byte: under a looser collation bucher.example would be found as bücher.example.
create table domains (
  id int unsigned not null auto_increment,
  created date null,
  name varchar(255) collate utf8mb4_bin not null,
  cl_id int unsigned not null,
  status bigint unsigned not null default 0,
  limits_id int unsigned null,
  primary key (id),
  unique key name (name),
  key cl_id (cl_id),
  key limits_id (limits_id),
  constraint domains_client foreign key (cl_id) references clients (id),
  constraint domains_limits foreign key (limits_id) references Limits (id)
) engine=InnoDB default charset=utf8mb4;

create table DomainServices (
  id int unsigned not null auto_increment,
  dom_id int unsigned not null,
  type enum('web', 'mail') not null,
  status bigint unsigned null default 0,
  parameters_id int unsigned null,
  primary key (id),
  unique key dom_id_type (dom_id, type),
  key parameters_id (parameters_id),
  constraint services_domain foreign key (dom_id) references domains (id) on delete cascade,
  constraint services_parameters foreign key (parameters_id) references Parameters (id)
) engine=InnoDB default charset=utf8mb4;

create table domainaliases (
  id int unsigned not null auto_increment,
  name varchar(255) collate utf8mb4_bin not null,
  dom_id int unsigned not null,
  status bigint unsigned not null default 0,
  mail enum('false', 'true') not null default 'true',
  web enum('false', 'true') not null default 'true',
  primary key (id),
  unique key name (name),
  key dom_id (dom_id),
  constraint aliases_domain foreign key (dom_id) references domains (id) on delete cascade
) engine=InnoDB default charset=utf8mb4;

create table accounts (
  id int unsigned not null auto_increment,
  type varchar(32) not null default 'plain',
  password text null,
  primary key (id)
) engine=InnoDB default charset=utf8mb4;

-- mbox_quota is a text: besides bytes the panel has written words into it.
create table mail (
  id int unsigned not null auto_increment,
  mail_name varchar(245) not null,
  dom_id int unsigned not null,
  account_id int unsigned null,
  postbox enum('false', 'true') null default 'false',
  mbox_quota varchar(32) null default '-1',
  redirect enum('false', 'true') null default 'false',
  redir_addr varchar(255) null,
  mail_group enum('false', 'true') null default 'false',
  autoresponder enum('false', 'true') null default 'false',
  spamfilter enum('false', 'true') null default 'false',
  virusfilter enum('none', 'incoming', 'outgoing', 'any') not null default 'none',
  primary key (id),
  unique key dom_id_name (dom_id, mail_name),
  key account_id (account_id),
  constraint mail_domain foreign key (dom_id) references domains (id),
  constraint mail_account foreign key (account_id) references accounts (id)
) engine=InnoDB default charset=utf8mb4;

create table mail_redir (
  id int unsigned not null auto_increment,
  mn_id int unsigned not null,
  address varchar(255) null,
  primary key (id),
  key mn_id (mn_id),
  constraint redir_mail foreign key (mn_id) references mail (id) on delete cascade
) engine=InnoDB default charset=utf8mb4;

create table mail_aliases (
  id int unsigned not null auto_increment,
  mn_id int unsigned not null,
  alias varchar(245) not null,
  primary key (id),
  unique key mn_id_alias (mn_id, alias),
  constraint alias_mail foreign key (mn_id) references mail (id) on delete cascade
) engine=InnoDB default charset=utf8mb4;

create table misc (
  param varchar(255) not null,
  val text null,
  primary key (param)
) engine=InnoDB default charset=utf8mb4;

create table Components (
  id int unsigned not null auto_increment,
  name varchar(255) not null,
  version varchar(255) null,
  primary key (id),
  key name (name)
) engine=InnoDB default charset=utf8mb4;

create table spamfilter (
  id int unsigned not null auto_increment,
  username varchar(255) collate utf8mb4_bin not null,
  reject_spam enum('false', 'true') null default 'false',
  primary key (id),
  unique key username (username)
) engine=InnoDB default charset=utf8mb4;

create table spamfilter_preferences (
  prefid int unsigned not null auto_increment,
  spamfilter_id int unsigned not null,
  preference varchar(60) not null,
  value mediumtext null,
  primary key (prefid),
  key spamfilter_id_preference (spamfilter_id, preference),
  constraint preferences_spamfilter foreign key (spamfilter_id) references spamfilter (id) on delete cascade
) engine=InnoDB default charset=utf8mb4;
