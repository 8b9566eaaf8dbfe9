/// Standard input, output and error of a process.
#pragma once

namespace ZARO {

/// Opens /dev/null in the place of each one that is missing. Else a process that was started
/// without them would get a socket there, into which messages would then be written. Call it before
/// anything is opened.
void FillStandardDescriptors();

} // namespace ZARO
