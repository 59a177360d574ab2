// A render graph owned by one object, every call checked: a failing call prints its status line
// and answers failure, so the caller skips what depends on it.
#pragma once

#include "audio/graph/AUGraph.h"
#include "countin_midi/AudioUnitTypes.h"

#include <optional>

namespace vell {

/// Owns one graph from construction to destruction (which stops and disposes of it).
/// Thread: main; the graph renders on the audio device's thread once started.
class AudioGraph {
public:
    /// Makes an empty graph (NewAUGraph).
    AudioGraph();
    ~AudioGraph();
    AudioGraph(const AudioGraph&) = delete;
    AudioGraph& operator=(const AudioGraph&) = delete;

    bool open();
    bool initialize();
    bool uninitialize();
    bool start();
    bool stop();
    bool isRunning() const;

    /// The new node, or nothing (after its status line) when the graph refuses the description.
    std::optional<AUNode> addNode(const AudioComponentDescription& description);
    bool connect(AUNode sourceNode, UInt32 sourceOutput, AUNode destinationNode,
                 UInt32 destinationInput);
    /// The unit of a node of the open graph, or nothing.
    std::optional<AudioUnit> audioUnit(AUNode node);

    /// The graph handle; null when it could not be made.
    AUGraph graph() const noexcept { return mGraph; }

private:
    AUGraph mGraph = nullptr;
};

} // namespace vell
