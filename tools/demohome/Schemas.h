// Schema texts compiled into the generator (from schemas/*.sql; see PROVENANCE.md).
#pragma once

namespace demohome {

// The text of schemas/<name>.sql, or nullptr when there is no such file.
const char* schemaText(const char* name);

}  // namespace demohome
