#pragma once

namespace KelKv {

/// The page at `/`: the last ten seconds as a timeline, and the tables, from `/trace.json` and `/metrics`. It
/// asks for both once a second, and for nothing else.
extern char const* const httpPage;

} // namespace KelKv
