// The handlers of all served commands, one each. They throw Error; what they leave unsaid the failure exit says.
#pragma once

#include "service/CommandRun.h"
#include "wire/Commands.h"

namespace quillmark {

void handle(CommandRun& run, const HelperVersion& call);
void handle(CommandRun& run, const HelperGitCommit& call);
void handle(CommandRun& run, const RequestQuit& call);
void handle(CommandRun& run, const ProtocolVersion& call);
void handle(CommandRun& run, const GetAuditLogHealth& call);
void handle(CommandRun& run, const HelperHealth& call);
void handle(CommandRun& run, const GetSchedule& call);
void handle(CommandRun& run, const SetSchedule& call);
void handle(CommandRun& run, const ListSchedules& call);
void handle(CommandRun& run, const GetFreeSpaceStates& call);
void handle(CommandRun& run, const GetHelperSettings& call);
void handle(CommandRun& run, const SetHelperSettings& call);
void handle(CommandRun& run, const ForwardNotification& call);
void handle(CommandRun& run, const ListSnapshots& call);
void handle(CommandRun& run, const IndexedXIDs& call);
void handle(CommandRun& run, const CompareLocalPaths& call);
void handle(CommandRun& run, const CompareSubtree& call);
void handle(CommandRun& run, const CreateSnapshot& call);
void handle(CommandRun& run, const CreateSafetySnapshot& call);
void handle(CommandRun& run, const DeleteSnapshot& call);
void handle(CommandRun& run, const DeleteSnapshots& call);
void handle(CommandRun& run, const SetProtected& call);
void handle(CommandRun& run, const SetSnapshotTag& call);
void handle(CommandRun& run, const MountSnapshot& call);
void handle(CommandRun& run, const MountSnapshots& call);
void handle(CommandRun& run, const UnmountSnapshot& call);
void handle(CommandRun& run, const UnmountSnapshots& call);
void handle(CommandRun& run, const PinSnapshotMounts& call);
void handle(CommandRun& run, const UnpinSnapshotMounts& call);
void handle(CommandRun& run, const DiffSnapshots& call);
void handle(CommandRun& run, const ReindexVolume& call);
void handle(CommandRun& run, const ReindexAllVolumes& call);
void handle(CommandRun& run, const ReindexSnapshot& call);
void handle(CommandRun& run, const ListUnservedSubvolumes& call);

}  // namespace quillmark
