-- One row of everything: a domain with an alias, a mailbox with all that it can have, and an alias of it.
delete from Components;
insert Components (name, version) values ('drweb', '1'), ('drweb-qmail', '1'), ('vlq-spamassassin', '1');
insert clients (id, login, email) values (1, 'a', 'owner@d.example');
insert Limits values (1, 'mbox_quota', '4294967296000');
insert domains (id, name, cl_id, limits_id) values (7, 'd.example', 1, 1);
insert DomainServices (id, dom_id, type, status) values (1, 7, 'mail', 0);
insert domainaliases (name, dom_id, status, mail) values ('e.example', 7, 0, 'true');
insert accounts values (1, 'crypt', 'hash');
insert mail (id, mail_name, dom_id, account_id, postbox, mbox_quota, redirect, redir_addr, mail_group, autoresponder,
  virusfilter, spamfilter) values (1, 'm', 7, 1, 'true', '2048', 'true', 'x@far.example', 'true', 'true', 'any', 'true');
insert mail_redir (mn_id, address) values (1, 'y@far.example');
insert mail_aliases (mn_id, alias) values (1, 'z');
insert spamfilter values (1, 'm@d.example', 'true');
