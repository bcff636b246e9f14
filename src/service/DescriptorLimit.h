// Raising the process's descriptor limit at start.
#pragma once

namespace quillmark {

class HelperLog;
class ThisProcess;

void raiseDescriptorLimit(ThisProcess& process, HelperLog& log);

}  // namespace quillmark
