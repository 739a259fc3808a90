// libplist as Homebrew has it (2.7), over the installed one: what was added, and what is no longer to be used.
#pragma once
#include_next <plist/plist.h>
extern "C" {
plist_t plist_new_int(int64_t value);
plist_t plist_new_unix_date(int64_t seconds);
void plist_get_unix_date_val(plist_t node, int64_t* seconds);
[[deprecated]] plist_t plist_new_date(int32_t seconds, int32_t microseconds);
[[deprecated]] void plist_get_date_val(plist_t node, int32_t* seconds, int32_t* microseconds);
}
