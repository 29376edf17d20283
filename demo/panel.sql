-- A panel in which everything that the mail configuration can be made of happens at least once.
set names utf8mb4;

insert into misc (param, val) values
  ('mysql41_compatible', 'true'),
  -- logins carry the domain: mail name, "@" and domain
  ('allow_short_pop3_names', 'disabled'),
  ('admin_email', 'admin@hosting.example'),
  ('spamfilter_enabled', 'true'),
  ('spamfilter_use_mailuser_prefs', 'true'),
  ('spamfilter_max_children', '12');

insert into Components (name, version) values
  ('vlq', '3.2.1'),
  ('drweb', '4.1.3'),
  ('drweb-qmail', '4.1.3'),
  ('vlq-spamassassin', '3.2.1'),
  ('mailman', 'not_installed');

insert into clients (id, login, full_name, email) values
  (1, 'north', 'North Harbour Ltd', 'owner@north.example'),
  -- mail that this owner's domains catch without an address of their own goes to the administrator
  (2, 'south', 'South Harbour Ltd', ''),
  (3, 'west', 'West Harbour Ltd', null);

insert into Limits (id, limit_name, value) values
  (1, 'mbox_quota', '1048576'),                -- 1 MiB
  (1, 'mailboxes', '50'),
  (2, 'mbox_quota', '0'),
  (3, 'mbox_quota', '1023'),                   -- less than a kilobyte
  (4, 'mbox_quota', '-1'),                     -- no limit
  (5, 'mbox_quota', 'unlimited'),              -- not a number
  (6, 'mailboxes', '10'),                        -- a set without the limit
  (7, 'mbox_quota', null);

insert into Parameters (id, parameter, value) values
  -- bounce, with a text of its own: quotes, two lines, letters outside ASCII
  (1, 'nonexist_mail', 'bounce'),
  (1, 'bounce_mess', 'Nobody is called "that" here; don''t try again.\nGrüße, the postmaster'),
  (1, 'catch_addr', 'unused@north.example'),
  -- bounce, with the default text
  (2, 'nonexist_mail', 'bounce'),
  (2, 'bounce_mess', ''),
  -- catch, into an address with an international domain
  (3, 'nonexist_mail', 'catch'),
  (3, 'catch_addr', 'catch.all@bücher.example'),
  -- catch, into the owner's address
  (4, 'nonexist_mail', 'catch'),
  -- catch, into the owner's address, which this owner lacks
  (5, 'nonexist_mail', 'catch'),
  (5, 'catch_addr', ''),
  (6, 'nonexist_mail', 'reject'),
  -- a policy that is not known counts as reject, but not for the domain's aliases
  (7, 'nonexist_mail', 'discard'),
  -- a policy that is there and empty
  (8, 'nonexist_mail', ''),
  -- parameters, but no policy
  (9, 'webmail', 'on');

insert into domains (id, created, name, cl_id, status, limits_id) values
  (1, '2006-03-01', 'north.example', 1, 0, 1),
  (2, '2006-03-02', 'closed.example', 1, 2, null),                  -- switched off, no limits
  (3, '2006-03-02', 'unpaid.example', 2, 0, 2),                     -- its mail service is switched off
  (4, '2006-03-05', 'pages.example', 2, 0, 1),                      -- web alone, no mail service
  (5, '2006-04-11', 'parked.example', 2, 0, null),                  -- no service at all
  (6, '2006-04-11', 'xn--mnchen-3ya.example', 1, 0, 4),             -- international, stored in ASCII form
  (7, '2006-05-20', 'bücher.example', 1, 0, 3),                     -- international, stored as it is spoken
  (8, '2006-06-30', 'quiet.example', 3, 0, 5),
  (9, '2006-07-01', 'south.example', 2, 0, 6),
  (10, '2006-07-02', 'west.example', 3, 0, 7),
  (11, '2006-07-03', 'plain.example', 3, 0, null),
  (12, '2006-07-04', 'gone.example', 3, 64, null);                  -- switched off along with its mail service

insert into DomainServices (id, dom_id, type, status, parameters_id) values
  (1, 1, 'web', 0, null),
  (2, 1, 'mail', 0, 1),
  (3, 2, 'mail', 0, 2),
  (4, 3, 'mail', 16, 3),
  (5, 4, 'web', 0, null),
  (6, 6, 'mail', null, 6),                     -- no status counts as switched on
  (7, 7, 'mail', 0, 4),
  (8, 8, 'mail', 0, 7),
  (9, 9, 'mail', 0, 5),
  (10, 10, 'mail', 0, 8),
  (11, 11, 'mail', 0, null),                   -- no parameters at all
  (12, 12, 'mail', 64, 9);

insert into domainaliases (id, name, dom_id, status, mail) values
  (1, 'north.test', 1, 0, 'true'),
  (2, 'nördlich.example', 1, 0, 'true'),       -- international
  (3, 'north-web.test', 1, 0, 'false'),        -- active, not for mail
  (4, 'north-old.test', 1, 2, 'true'),         -- for mail, not active
  (5, 'north-gone.test', 1, 2, 'false'),
  (6, 'closed.test', 2, 0, 'true'),            -- entered though its domain is switched off
  (7, 'muenchen.test', 6, 0, 'true'),          -- rejected along with its domain
  (8, 'muenchen-old.test', 6, 2, 'true'),
  (9, 'quiet.test', 8, 0, 'true');             -- not rejected: the policy is not exactly "reject"

insert into accounts (id, type, password) values
  (1, 'crypt', '$1$IwrcDhcb$ionHtiZ0K9gNAkLsgf0wg/'),
  (2, 'plain', 'tulip and "rose"'),
  (3, 'plain', 'geheimniskrämerei'),
  (4, 'legacy', 'hyacinth'),                      -- any type but crypt is encrypted
  (5, 'plain', null),
  (6, 'crypt', ''),                            -- nothing to log in with: no record
  (7, 'crypt', '$1$I6yVeZC0$9FLQs6EIK0FTu0j/JL1HG0'),
  (8, 'plain', 'crocus'),
  (9, 'plain', 'snowdrop');

insert into mail
  (id, mail_name, dom_id, account_id, postbox, mbox_quota, redirect, redir_addr, mail_group, autoresponder,
   spamfilter, virusfilter) values
  -- a mailbox with a stored hash, 1 MiB, two aliases
  (1, 'info', 1, 1, 'true', '1048576', 'false', null, 'false', 'false', 'true', 'any'),
  -- everything at once: mailbox, redirect, group, autoresponder, alias
  (2, 'anna.lind', 1, 2, 'true', '1023', 'true', 'anna@elsewhere.example', 'true', 'true', 'false', 'incoming'),
  -- a mailbox without an account row, quota 0
  (3, 'lost', 1, null, 'true', '0', 'false', null, 'false', 'false', null, 'outgoing'),
  -- no mailbox, a group with several members
  (4, 'team', 1, null, 'false', '-1', 'false', null, 'true', 'false', 'true', 'none'),
  -- a group without members, an autoresponder
  (5, 'holiday', 1, null, 'false', '-1', 'false', null, 'true', 'true', 'false', 'none'),
  -- redirects without an address add nothing
  (6, 'nowhere', 1, null, 'false', '-1', 'true', '', 'false', 'false', 'false', 'none'),
  (7, 'nobody', 1, null, 'false', '-1', 'true', null, 'false', 'false', 'false', 'none'),
  -- an address that is not in use
  (8, 'parked', 1, 3, 'true', 'unlimited', 'false', 'old@elsewhere.example', 'false', 'false', 'false', 'none'),
  -- an account of another type, a quota with a tail
  (9, '2nd', 1, 4, 'true', '4096KB', 'false', null, 'false', 'false', 'false', 'none'),
  -- an account without a password, first byte "_", no quota
  (10, '_service', 1, 5, 'true', null, 'false', null, 'false', 'false', 'false', 'none'),
  -- a stored hash that is empty, first byte "-"
  (11, '-dash', 1, 6, 'true', '-1', 'false', null, 'false', 'false', 'false', 'none'),
  -- columns that were never set
  (12, 'bare', 1, null, null, null, null, null, null, null, null, 'none'),
  -- a quote in the name, 5 GiB
  (13, 'o''hara', 1, 8, 'true', '5368709120', 'false', null, 'false', 'false', 'true', 'incoming'),
  -- mailboxes of domains that are switched off
  (20, 'info', 2, 7, 'true', '2097152', 'false', null, 'false', 'false', 'false', 'outgoing'),
  (21, 'billing', 3, 9, 'true', '-1', 'false', null, 'false', 'false', 'false', 'none'),
  -- never visited: the domain has no mail service
  (22, 'web', 4, null, 'true', '-1', 'false', null, 'false', 'false', 'false', 'none'),
  -- mailboxes of international domains
  (30, 'rathaus', 6, 9, 'true', '1048576', 'false', null, 'false', 'false', 'true', 'any'),
  (31, 'lesen', 7, 8, 'true', '1024', 'true', 'leser@zürich.example', 'false', 'false', 'true', 'incoming'),
  (40, 'info', 8, 9, 'true', '-1', 'false', null, 'false', 'false', 'false', 'none');

-- The domain of this one was deleted and left it behind.
set foreign_key_checks = 0;
insert into mail (id, mail_name, dom_id, postbox, virusfilter) values (99, 'orphan', 9999, 'true', 'any');
set foreign_key_checks = 1;

insert into mail_redir (id, mn_id, address) values
  (1, 2, 'first@team.example'),
  (2, 2, 'anna@elsewhere.example'),            -- the redirect's address again: one line, in this place
  (3, 2, null),
  (4, 2, 'Second.Member@zürich.example'),      -- international
  (5, 4, 'info@north.example'),
  (6, 4, 'anna.lind@north.example'),
  (7, 4, 'team@partner.test'),
  (8, 8, 'unused@team.example');               -- of a mail name that is no group

insert into mail_aliases (id, mn_id, alias) values
  (1, 1, 'contact'),
  (2, 1, 'sales'),
  (3, 2, 'a.lind'),
  (4, 4, 'everyone'),
  (5, 20, 'office'),
  (6, 30, 'stadt'),
  (7, 99, 'orphans-alias');

insert into spamfilter (id, username, reject_spam) values
  (1, '*@*', 'false'),                         -- the whole server
  (2, 'info@north.example', 'true'),
  (3, 'anna.lind@north.example', 'false'),
  (4, 'lost@north.example', null),             -- no preferences
  (5, 'team@north.example', 'false'),
  (6, 'o''hara@north.example', 'true'),
  (7, 'lesen@bücher.example', 'true'),
  (8, 'nobody@unknown.example', 'true');       -- never visited: no such mail name

insert into spamfilter_preferences (spamfilter_id, preference, value) values
  (1, 'required_score', '7'),
  (1, 'rewrite_header', 'subject [spam]'),
  (1, 'blacklist_from', '*@spam.example'),
  (1, 'whitelist_from', '*@hosting.example'),
  -- the first of two scores counts; the subject stays as it is
  (2, 'required_score', '5.5'),
  (2, 'required_score', '9'),
  (2, 'rewrite_header', 'subject'),
  -- an empty score; a subject with blanks; each of the four lists
  (3, 'required_score', ''),
  (3, 'rewrite_header', 'subject  [ spam? ] '),
  (3, 'whitelist_from', 'mother@family.example'),
  (3, 'blacklist_from', 'offers@shop.example'),
  (3, 'unblacklist_from', 'news@shop.example'),
  (3, 'unwhitelist_from', 'cousin@family.example'),
  -- another header is rewritten, not the subject
  (5, 'rewrite_header', 'from (spam)'),
  (6, 'required_score', '3'),
  (7, 'blacklist_from', '*@müll.example');

-- More entries than one command line takes.
insert into spamfilter_preferences (spamfilter_id, preference, value)
  with recursive entry (number) as (select 1 union all select number + 1 from entry where number < 60)
  select 2, 'blacklist_from', concat('sender', number, '@spam.example') from entry order by number;

-- Two entries of 9 KB, of which one command line takes one.
insert into spamfilter_preferences (spamfilter_id, preference, value) values
  (5, 'blacklist_from', concat(repeat('x', 9201), '@long.example')),
  (5, 'blacklist_from', concat(repeat('y', 9201), '@long.example')),
  (5, 'whitelist_from', 'short@long.example');

-- No query asks for an order: with fixed statistics the rows come in the same order each time.
analyze table domains, DomainServices, domainaliases, mail, mail_aliases, accounts;
