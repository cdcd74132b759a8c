// The one call that goes upwards: the agent bridge asks the process for a restart in place.
#pragma once

/// Stops the workers, reads the configuration file again and starts the workers anew; the process
/// and the agent bridge stay up. Call it from any thread but a worker. It returns when the new
/// workers run; during start-up it returns at once and the restart follows when start-up is
/// through; once shutdown has begun it does nothing. Overlapping calls run one after another.
void restart_collector();
