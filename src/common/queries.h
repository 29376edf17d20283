#pragma once

// What the program asks the panel's database, as formats of printf. They stand here so that a check before a run tries
// the very texts that the run will send.

// The rebuild pass. `domains_query` has none but the domains with the mail service.
inline constexpr char domains_query[] = "SELECT d.id, d.name, d.status, s.status FROM domains d "
                                        "LEFT JOIN DomainServices s ON d.id=s.dom_id WHERE s.type='mail'";
inline constexpr char domain_aliases_query[] =
    "SELECT name FROM domainaliases WHERE dom_id=%s AND status=%u AND mail='true'";

// The columns of a mail name's row, in the order of its query.
#define MAIL_COLUMNS(COLUMN)                                                                                           \
    COLUMN(mail_id, "m.id")                                                                                            \
    COLUMN(mail_name, "m.mail_name")                                                                                   \
    COLUMN(mail_postbox, "m.postbox")                                                                                  \
    COLUMN(account_type, "a.type")                                                                                     \
    COLUMN(account_password, "a.password")                                                                             \
    COLUMN(mail_redirect, "m.redirect")                                                                                \
    COLUMN(mail_redir_addr, "m.redir_addr")                                                                            \
    COLUMN(mail_group, "m.mail_group")                                                                                 \
    COLUMN(mail_autoresponder, "m.autoresponder")                                                                      \
    COLUMN(mail_mbox_quota, "m.mbox_quota")
#define COLUMN_SOURCE(name, source) ", " source
inline constexpr const char *mail_columns = &(MAIL_COLUMNS(COLUMN_SOURCE))[2]; // behind the first ", "
#undef COLUMN_SOURCE
inline constexpr char mail_query[] =
    "SELECT %s FROM mail m LEFT JOIN accounts a ON a.id = m.account_id WHERE dom_id=%s";

inline constexpr char group_query[] = "SELECT address FROM mail_redir WHERE mn_id=%s";
inline constexpr char mail_aliases_query[] = "SELECT alias FROM mail_aliases WHERE mn_id=%s";
inline constexpr char domain_id_query[] = "select id from domains where name='%s'";

// Lookups of single values.
inline constexpr char param_query[] = "select %s from %s where %s='%s'";
inline constexpr char limit_query[] =
    "select l.value from domains d, Limits l \t\t\t\t where d.id='%s' and d.limits_id=l.id"
    "  and l.limit_name='%s'";
inline constexpr char service_parameter_query[] =
    "select r.value from DomainServices s, Parameters r \t\t\t\t where s.dom_id='%s' and s.type='%s'"
    " and s.parameters_id=r.id  and r.parameter='%s'";
inline constexpr char client_email_query[] =
    "select c.email from domains d, clients c \t\t\t\t\t\t\t\t\twhere d.cl_id=c.id and d.id='%s'";
inline constexpr char component_query[] = "SELECT version FROM Components WHERE name = '%s'";
inline constexpr char names_query[] = "SELECT val FROM misc WHERE param='mysql41_compatible'";

// The antivirus engine's recipients. Each row: setting, local part, domain.
inline constexpr char scanned_names_query[] =
    "SELECT m.virusfilter, m.mail_name, d.name FROM mail m LEFT JOIN domains d ON m.dom_id=d.id "
    "WHERE m.virusfilter!='none'";
inline constexpr char scanned_names_on_aliases_query[] =
    "SELECT m.virusfilter, m.mail_name, da.name FROM mail m LEFT JOIN domainaliases da ON m.dom_id=da.dom_id "
    "WHERE m.virusfilter!='none' AND da.mail='true' AND da.status='0'";
inline constexpr char scanned_aliases_query[] =
    "SELECT mn.virusfilter, ma.alias, d.name FROM mail mn, domains d, mail_aliases ma "
    "WHERE ma.mn_id=mn.id AND mn.dom_id=d.id AND mn.virusfilter!='none'";
inline constexpr char scanned_aliases_on_aliases_query[] =
    "SELECT mn.virusfilter, ma.alias, da.name FROM mail mn, domains d, mail_aliases ma, domainaliases da "
    "WHERE mn.dom_id=da.dom_id AND ma.mn_id=mn.id AND mn.dom_id=d.id AND mn.virusfilter!='none'";

// The spam filter's settings.
inline constexpr char spam_domains_query[] = "SELECT d.id, d.name FROM domains d LEFT JOIN DomainServices s ON "
                                             "d.id=s.dom_id WHERE s.type='mail'";
inline constexpr char spam_names_query[] = "SELECT mail_name FROM mail WHERE dom_id=%s";
inline constexpr char spam_filter_query[] =
    "SELECT id, IF(reject_spam = 'true', 'delete', 'save') FROM spamfilter WHERE username = '%s'";
inline constexpr char spam_state_query[] = "SELECT spamfilter FROM mail m, domains d WHERE m.dom_id = d.id "
                                           "AND CONCAT(m.mail_name, '@', d.name) = '%s'";
inline constexpr char spam_score_query[] = "SELECT value FROM spamfilter_preferences WHERE spamfilter_id = %s "
                                           "AND preference = 'required_score' ORDER BY prefid";
inline constexpr char spam_subject_query[] =
    "SELECT TRIM(TRIM(LEADING 'subject' FROM value)) FROM spamfilter_preferences "
    "WHERE spamfilter_id = %s AND preference = 'rewrite_header' AND value LIKE 'subject%%' "
    "ORDER BY prefid";
inline constexpr char spam_lists_query[] =
    "SELECT TRIM(TRAILING '_from' FROM preference), value FROM spamfilter_preferences "
    "WHERE spamfilter_id = %s AND preference IN ('blacklist_from', 'whitelist_from', "
    "'unblacklist_from', 'unwhitelist_from') ORDER BY prefid";
