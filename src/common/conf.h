#pragma once

// The product configuration file /etc/vlq/vlq.conf: a key, whitespace and a value on each line.

// The keys that load_conf requires, in the order in which it looks them up.
#define CONF_KEYS(KEY)                                                                                                 \
    KEY(PRODUCT_ROOT_D)                                                                                                \
    KEY(HTTPD_VHOSTS_D)                                                                                                \
    KEY(HTTPD_CONF_D)                                                                                                  \
    KEY(HTTPD_INCLUDE_D)                                                                                               \
    KEY(HTTPD_BIN_D)                                                                                                   \
    KEY(HTTPD_LOG_D)                                                                                                   \
    KEY(HTTPD_SERVICE)                                                                                                 \
    KEY(QMAIL_ROOT_D)                                                                                                  \
    KEY(QMAIL_MAILNAMES_D)                                                                                             \
    KEY(FTPD_CONF)                                                                                                     \
    KEY(FTPD_CONF_INC)                                                                                                 \
    KEY(FTPD_BIN_D)                                                                                                    \
    KEY(NAMED_ZONES_CONF)                                                                                              \
    KEY(NAMED_OPTIONS_CONF)                                                                                            \
    KEY(NAMED_RUN_ROOT_D)                                                                                              \
    KEY(WEB_STAT)                                                                                                      \
    KEY(LOGROTATE)                                                                                                     \
    KEY(MYSQL_VAR_D)                                                                                                   \
    KEY(MYSQL_BIN_D)                                                                                                   \
    KEY(PGSQL_BIN_D)                                                                                                   \
    KEY(PGSQL_DATA_D)                                                                                                  \
    KEY(MAILMAN_ROOT_D)                                                                                                \
    KEY(MAILMAN_VAR_D)                                                                                                 \
    KEY(PRODUCT_RC_D)                                                                                                  \
    KEY(DUMP_D)                                                                                                        \
    KEY(CATALINA_HOME)                                                                                                 \
    KEY(DRWEB_ROOT_D)                                                                                                  \
    KEY(DRWEB_ETC_D)                                                                                                   \
    KEY(CURL_CA_BUNDLE_FILE)                                                                                           \
    KEY(AWSTATS_ETC_D)                                                                                                 \
    KEY(AWSTATS_BIN_D)                                                                                                 \
    KEY(AWSTATS_TOOLS_D)                                                                                               \
    KEY(AWSTATS_DOC_D)                                                                                                 \
    KEY(LIB_SSL_PATH)                                                                                                  \
    KEY(LIB_CRYPTO_PATH)                                                                                               \
    KEY(CLIENT_PHP_BIN)

// One variable per key: null until load_conf has set it, never empty afterwards. The texts belong to the configuration
// cache, which lives as long as the process: nobody changes or frees them.
#define CONF_VARIABLE(key) extern const char *key;
CONF_KEYS(CONF_VARIABLE)
#undef CONF_VARIABLE

// Returns a key's value from the first line that has one, or null when no line has or the file cannot be read. The
// first lookup that can read the file caches it until the process ends. Keys are case-sensitive. A value extends to the
// end of its line, without trailing whitespace (which stays on a last line without a newline). Reports nothing. The
// text belongs to the cache, as above.
const char *conf_get(const char *key);

// Sets every configuration variable. The first key without a value ends the process: "Error: KEY not defined\n".
void load_conf();
