// The render graph: nodes holding audio units, connections from outputs to inputs, input
// callbacks on unit inputs, and render notifications around the output node.
#pragma once

#include "audio/graph/AudioUnit.h"

namespace vell {

struct OpaqueAUGraph;
using AUGraph = OpaqueAUGraph*;
/// A node of a graph; never 0.
using AUNode = std::int32_t;

/// Thread: main thread for every call. Connections, input callbacks and notifications change
/// only while the graph is not running; parameters of its units may change at any time.
OSStatus NewAUGraph(AUGraph* outGraph);
/// Stops and uninitializes the graph and frees its units.
OSStatus DisposeAUGraph(AUGraph graph);

/// Adds a node for the unit of this description (type, subtype, manufacturer; a zero
/// manufacturer matches any). Unknown descriptions give invalidComponentID.
OSStatus AUGraphAddNode(AUGraph graph, const AudioComponentDescription* description,
                        AUNode* outNode);
/// Removes a node with its connections, input callbacks and unit.
OSStatus AUGraphRemoveNode(AUGraph graph, AUNode node);
OSStatus AUGraphGetNodeCount(AUGraph graph, UInt32* outNumberOfNodes);
OSStatus AUGraphGetIndNode(AUGraph graph, UInt32 index, AUNode* outNode);
/// Either out pointer may be null. The unit exists once the graph is open.
OSStatus AUGraphNodeInfo(AUGraph graph, AUNode node, AudioComponentDescription* outDescription,
                         AudioUnit* outAudioUnit);

/// Instantiates the units of every node (nodes added later are instantiated at once).
OSStatus AUGraphOpen(AUGraph graph);
OSStatus AUGraphClose(AUGraph graph);
OSStatus AUGraphIsOpen(AUGraph graph, Boolean* outIsOpen);

/// Applies the connections (a destination input takes its source's output format) and
/// initializes every unit, sources first. Opens the graph if needed.
OSStatus AUGraphInitialize(AUGraph graph);
OSStatus AUGraphUninitialize(AUGraph graph);
OSStatus AUGraphIsInitialized(AUGraph graph, Boolean* outIsInitialized);

/// Starts the graph's output unit (the first node of type "auou"); initializes first if needed.
OSStatus AUGraphStart(AUGraph graph);
OSStatus AUGraphStop(AUGraph graph);
OSStatus AUGraphIsRunning(AUGraph graph, Boolean* outIsRunning);

/// Connects output sourceOutput of sourceNode to input destInput of destNode. An input takes
/// one connection or one callback; an output feeds one input.
OSStatus AUGraphConnectNodeInput(AUGraph graph, AUNode sourceNode, UInt32 sourceOutput,
                                 AUNode destNode, UInt32 destInput);
OSStatus AUGraphDisconnectNodeInput(AUGraph graph, AUNode destNode, UInt32 destInput);
OSStatus AUGraphClearConnections(AUGraph graph);
/// Makes a callback the source of an input (replacing a connection or callback there).
OSStatus AUGraphSetNodeInputCallback(AUGraph graph, AUNode destNode, UInt32 destInput,
                                     const AURenderCallbackStruct* callback);
/// Changes are applied when made; answers that nothing is pending.
OSStatus AUGraphUpdate(AUGraph graph, Boolean* outIsUpdated);

/// Notifications around every render of the output node, pre-render then post-render; they
/// follow the output node when it is replaced.
OSStatus AUGraphAddRenderNotify(AUGraph graph, AURenderCallback proc, void* refCon);
OSStatus AUGraphRemoveRenderNotify(AUGraph graph, AURenderCallback proc, void* refCon);

} // namespace vell
