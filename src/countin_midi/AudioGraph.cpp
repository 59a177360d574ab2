// The checked graph wrapper.
#include "countin_midi/AudioGraph.h"

namespace vell {

AudioGraph::AudioGraph()
{
    if (!checkAudioCall(NewAUGraph(&mGraph))) {
        mGraph = nullptr;
    }
}

AudioGraph::~AudioGraph()
{
    if (mGraph) {
        checkAudioCall(DisposeAUGraph(mGraph));
    }
}

bool AudioGraph::open()
{
    return checkAudioCall(AUGraphOpen(mGraph));
}

bool AudioGraph::initialize()
{
    return checkAudioCall(AUGraphInitialize(mGraph));
}

bool AudioGraph::uninitialize()
{
    return checkAudioCall(AUGraphUninitialize(mGraph));
}

bool AudioGraph::start()
{
    return checkAudioCall(AUGraphStart(mGraph));
}

bool AudioGraph::stop()
{
    return checkAudioCall(AUGraphStop(mGraph));
}

bool AudioGraph::isRunning() const
{
    Boolean running = 0;
    return AUGraphIsRunning(mGraph, &running) == noErr && running != 0;
}

std::optional<AUNode> AudioGraph::addNode(const AudioComponentDescription& description)
{
    AUNode node = 0;
    if (!checkAddNode(AUGraphAddNode(mGraph, &description, &node))) {
        return std::nullopt;
    }
    return node;
}

bool AudioGraph::connect(AUNode sourceNode, UInt32 sourceOutput, AUNode destinationNode,
                         UInt32 destinationInput)
{
    return checkAudioCall(AUGraphConnectNodeInput(mGraph, sourceNode, sourceOutput, destinationNode,
                                                  destinationInput));
}

std::optional<AudioUnit> AudioGraph::audioUnit(AUNode node)
{
    AudioUnit unit = nullptr;
    if (!checkAudioCall(AUGraphNodeInfo(mGraph, node, nullptr, &unit)) || !unit) {
        return std::nullopt;
    }
    return unit;
}

} // namespace vell
