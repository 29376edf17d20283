-- What no panel should hold, and some do: rows without values, names that reach beyond their line, two of one name.
insert misc values ('admin_email', 'a@b.test\nc@d.test'), ('allow_short_pop3_names', null);
insert Components (name, version) values ('drweb-qmail', '1');
update Components set version = '1';
insert clients (id, login, email) values (1, 'a', null), (2, 'b', 'b@c.test\r'), (3, 'c', 'owner@c.test');
insert Limits values (1, 'mbox_quota', ' 2147483648000'), (2, 'mbox_quota', '-9223372036854775808'), (3, 'mbox_quota', '9x');
insert Parameters values (1, 'nonexist_mail', 'catch'), (1, 'catch_addr', 'c@d.test\n|x'), (2, 'nonexist_mail', 'reject'),
  (3, 'nonexist_mail', 'rejected'), (4, 'nonexist_mail', 'bounce'), (4, 'bounce_mess', '\na\n\nb`c`\n'),
  (5, 'nonexist_mail', 'catch'), (5, 'catch_addr', 'x@ü.test');
insert domains (id, name, cl_id, status, limits_id) values
  (1, 'catch.test', 1, 0, 1), (2, 'ctrl\n.test', 1, 0, 1), (3, 'a/b.test', 1, 0, 1), (4, '..', 1, 0, 1), (5, '.', 1, 0, 1),
  (6, 'a:b.test', 1, 0, 1), (7, 'a@b.test', 1, 0, 1), (8, concat('del', char(127), '.test'), 1, 0, 1), (9, 'x／y.test', 1, 0, 1),
  (10, 'bücher.test', 2, 0, 2), (11, 'xn--bcher-kva.test', 1, 0, 3), (12, 'XN--Bcher-Kva.test', 1, 0, 3),
  (13, 'reject.test', 1, 4294967296, 2), (14, 'rejected.test', 1, 0, 3), (15, 'bounce.test', 1, 18446744073709551615, null),
  (16, 'ü.test', 1, 0, null), (17, 'web.test', 1, 0, null), (18, 'B.TEST', 1, 0, null), (19, 'quo＇te.test', 1, 0, null),
  (20, 'nbsp.test ', 1, 0, null), (21, 'wide.test　', 1, 0, null), (22, '․dot.test', 1, 0, null),
  (23, 'owner.test', 3, 0, null), (24, 'quo＂te.test', 1, 0, null), (25, 'back＼slash.test', 1, 0, null);
insert DomainServices (dom_id, type, status, parameters_id)
  select id, if(name = 'web.test', 'web', 'mail'), null, null from domains;
update DomainServices set parameters_id = 1 where dom_id in (1, 10, 23);
update DomainServices set parameters_id = 2 where dom_id = 13;
update DomainServices set parameters_id = 3, status = 256 where dom_id = 14;
update DomainServices set parameters_id = 4 where dom_id = 15;
update DomainServices set parameters_id = 5 where dom_id = 16;
insert domainaliases (name, dom_id, status, mail) values ('alias.test', 13, 0, 'true'), ('Alias.TEST', 13, 0, 'true'),
  ('b.test', 1, 0, 'true'), ('web.test', 1, 0, 'true'), ('y\n.test', 1, 0, 'true'), ('a@c.test', 1, 0, 'true'),
  ('..', 1, 0, 'true'), ('ä.test', 14, 0, 'true'), ('xn--4ca.test', 14, 0, 'true'), ('old.test', 1, 1, 'true'), ('off.test', 1, 0, 'false');
insert accounts values (1, 'crypt', 'has:colon'), (2, 'crypt', 'has\nline'), (3, 'plain', repeat(1, 600)), (4, 'crypt', ''),
  (5, 'Crypt', 'plain'), (6, 'crypt', 'hash');
insert mail (id, mail_name, dom_id, account_id, postbox, mbox_quota, redirect, redir_addr, mail_group, autoresponder,
  virusfilter) values
  (1, 'colon', 1, 1, 'true', '1023', 'true', 'a@far.test\nx', 'true', 'true', 'outgoing'), (2, 'line', 1, 2, 'true', '1024',
  'true', '', 'false', 'false', 'incoming'), (3, 'long', 1, 3, 'true', '2199023255552', 'false', 'no@far.test', 'true', 'false',
  'any'), (4, 'none', 1, 4, 'true', null, null, null, null, null, 'none'), (5, 'null', 1, null, null, '-1', 'true', null, 'true',
  'true', 'any'), (6, '.', 1, 6, 'true', '1', 'false', null, 'false', 'false', 'any'), (7, 'a/b', 1, 6, 'true', '1', 'false', null,
  'false', 'false', 'any'), (8, 'a\tb', 1, 6, 'true', '1', 'false', null, 'false', 'false', 'any'), (9, 'a:b', 1, 6, 'true', '1',
  'false', null, 'false', 'false', 'any'), (10, '..', 1, 6, 'true', '1', 'false', null, 'false', 'false', 'any'), (11, 'type', 15, 5,
  'true', '', 'false', null, 'false', 'false', 'none'), (12, 'z@z', 15, 6, 'true', 'x', 'false', null, 'false', 'false', 'any');
insert mail_redir (mn_id, address) values (1, null), (1, 'g@far.test'), (1, concat('h@far.test', char(127))), (3, 'only@ü.test'), (4, 'no@far.test');
insert mail_aliases (mn_id, alias) values (1, 'ok'), (1, 'no\nline'), (1, 'no/way'), (1, 'no:no'), (5, '-dash');
