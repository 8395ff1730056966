// `tolvane demo`: one registration from beginning to end against a registrar inside the process.
#pragma once

namespace host {

// 0 only when everything that the demonstration promises has happened and been checked.
[[nodiscard]] int RunDemo();

}  // namespace host
