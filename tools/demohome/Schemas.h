// Schema texts compiled into the generator (from tests/data/schemas/*.sql; see PROVENANCE.md).
#pragma once

namespace demohome {

// The text of tests/data/schemas/<name>*.sql, or nullptr when there is no such file.
const char* schemaText(const char* name);

}  // namespace demohome
