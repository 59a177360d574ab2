// The render graph.
#include "audio/graph/AUGraph.h"

#include "audio/graph/AudioComponents.h"
#include "audio/graph/AudioUnitInstance.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace vell {

struct OpaqueAUGraph {
    struct Node {
        AUNode id = 0;
        AudioComponentDescription description;
        std::unique_ptr<AudioUnitInstance> unit;
    };
    struct Connection {
        AUNode source = 0;
        UInt32 sourceOutput = 0;
        AUNode destination = 0;
        UInt32 destinationInput = 0;
    };
    struct InputCallback {
        AUNode destination = 0;
        UInt32 destinationInput = 0;
        AURenderCallbackStruct callback;
    };

    std::vector<Node> nodes;
    std::vector<Connection> connections;
    std::vector<InputCallback> callbacks;
    std::vector<AURenderCallbackStruct> notifies;
    AUNode nextNode = 1;
    bool open = false;
    bool initialized = false;
    /// The unit that carries the notifications (the output node's unit).
    AudioUnitInstance* notifiedUnit = nullptr;

    Node* find(AUNode id)
    {
        const auto it =
            std::find_if(nodes.begin(), nodes.end(), [id](const Node& n) { return n.id == id; });
        return it == nodes.end() ? nullptr : &*it;
    }

    AudioUnitInstance* unitOf(AUNode id)
    {
        Node* node = find(id);
        return node ? node->unit.get() : nullptr;
    }

    Node* head()
    {
        const auto it = std::find_if(nodes.begin(), nodes.end(), [](const Node& n) {
            return n.description.componentType == kAudioUnitType_Output;
        });
        return it == nodes.end() ? nullptr : &*it;
    }

    bool isRunning()
    {
        Node* output = head();
        return output && output->unit && output->unit->isRunning();
    }

    /// Moves the notifications to the output node's unit.
    void attachNotifies()
    {
        Node* output = head();
        AudioUnitInstance* target = output ? output->unit.get() : nullptr;
        if (target == notifiedUnit) {
            return;
        }
        if (notifiedUnit) {
            for (const AURenderCallbackStruct& n : notifies) {
                notifiedUnit->removeRenderNotify(n.inputProc, n.inputProcRefCon);
            }
        }
        notifiedUnit = target;
        if (notifiedUnit) {
            for (const AURenderCallbackStruct& n : notifies) {
                notifiedUnit->addRenderNotify(n.inputProc, n.inputProcRefCon);
            }
        }
    }

    /// Gives every unit its input sources from the recorded connections and callbacks.
    OSStatus applyWiring()
    {
        if (!open) {
            return noErr;
        }
        for (Node& node : nodes) {
            for (UInt32 bus = 0; bus < node.unit->inputCount(); ++bus) {
                node.unit->disconnectInput(bus);
            }
        }
        for (const InputCallback& c : callbacks) {
            if (const OSStatus status = unitOf(c.destination)->setInputCallback(
                    c.destinationInput, c.callback);
                status != noErr) {
                return status;
            }
        }
        for (const Connection& c : connections) {
            if (const OSStatus status = unitOf(c.destination)->connectInput(
                    c.destinationInput, unitOf(c.source), c.sourceOutput);
                status != noErr) {
                return status;
            }
        }
        return noErr;
    }

    /// Initializes a unit after everything that feeds it, each input taking its source's
    /// output format.
    OSStatus initializeUnit(AudioUnitInstance* unit, int depth)
    {
        if (unit->isInitialized()) {
            return noErr;
        }
        if (depth > int(nodes.size())) {
            return kAUGraphErr_InvalidConnection;
        }
        for (UInt32 bus = 0; bus < unit->inputCount(); ++bus) {
            AudioUnitInstance* source = unit->inputUnit(bus);
            if (!source) {
                continue;
            }
            if (const OSStatus status = initializeUnit(source, depth + 1); status != noErr) {
                return status;
            }
            const auto it = std::find_if(connections.begin(), connections.end(),
                                         [&](const Connection& c) {
                                             return unitOf(c.destination) == unit &&
                                                    c.destinationInput == bus;
                                         });
            const UInt32 sourceOutput = it == connections.end() ? 0 : it->sourceOutput;
            if (const OSStatus status =
                    unit->adoptInputFormat(bus, source->outputFormat(sourceOutput));
                status != noErr) {
                return status;
            }
        }
        return unit->initialize();
    }

    /// Whether candidate is node itself or feeds it, following the recorded connections.
    bool isUpstream(AUNode node, AUNode candidate, int depth = 0) const
    {
        if (node == candidate || depth > int(nodes.size())) {
            return true;
        }
        for (const Connection& c : connections) {
            if (c.destination == node && isUpstream(c.source, candidate, depth + 1)) {
                return true;
            }
        }
        return false;
    }

    void removeWiringAt(AUNode destination, UInt32 input)
    {
        std::erase_if(connections, [&](const Connection& c) {
            return c.destination == destination && c.destinationInput == input;
        });
        std::erase_if(callbacks, [&](const InputCallback& c) {
            return c.destination == destination && c.destinationInput == input;
        });
    }
};

OSStatus NewAUGraph(AUGraph* outGraph)
{
    if (!outGraph) {
        return paramErr;
    }
    *outGraph = new OpaqueAUGraph;
    return noErr;
}

OSStatus DisposeAUGraph(AUGraph graph)
{
    if (!graph) {
        return paramErr;
    }
    AUGraphStop(graph);
    AUGraphUninitialize(graph);
    AUGraphClose(graph);
    delete graph;
    return noErr;
}

OSStatus AUGraphAddNode(AUGraph graph, const AudioComponentDescription* description,
                        AUNode* outNode)
{
    if (!graph || !description || !outNode) {
        return paramErr;
    }
    if (!detail::isKnownComponent(*description)) {
        return invalidComponentID;
    }
    OpaqueAUGraph::Node node;
    node.id = graph->nextNode++;
    node.description = *description;
    if (graph->open) {
        node.unit = detail::makeAudioUnit(*description);
        if (!node.unit) {
            return invalidComponentID;
        }
    }
    graph->nodes.push_back(std::move(node));
    *outNode = graph->nodes.back().id;
    graph->attachNotifies();
    return noErr;
}

OSStatus AUGraphRemoveNode(AUGraph graph, AUNode node)
{
    if (!graph) {
        return paramErr;
    }
    OpaqueAUGraph::Node* found = graph->find(node);
    if (!found) {
        return kAUGraphErr_NodeNotFound;
    }
    if (graph->isRunning()) {
        return kAUGraphErr_CannotDoInCurrentContext;
    }
    AudioUnitInstance* unit = found->unit.get();
    std::erase_if(graph->connections, [&](const OpaqueAUGraph::Connection& c) {
        return c.source == node || c.destination == node;
    });
    std::erase_if(graph->callbacks,
                  [&](const OpaqueAUGraph::InputCallback& c) { return c.destination == node; });
    if (unit) {
        for (OpaqueAUGraph::Node& other : graph->nodes) {
            if (!other.unit) {
                continue;
            }
            for (UInt32 bus = 0; bus < other.unit->inputCount(); ++bus) {
                if (other.unit->inputUnit(bus) == unit) {
                    other.unit->disconnectInput(bus);
                }
            }
        }
        if (graph->notifiedUnit == unit) {
            for (const AURenderCallbackStruct& n : graph->notifies) {
                unit->removeRenderNotify(n.inputProc, n.inputProcRefCon);
            }
            graph->notifiedUnit = nullptr;
        }
        unit->uninitialize();
    }
    std::erase_if(graph->nodes, [node](const OpaqueAUGraph::Node& n) { return n.id == node; });
    graph->attachNotifies();
    return noErr;
}

OSStatus AUGraphGetNodeCount(AUGraph graph, UInt32* outNumberOfNodes)
{
    if (!graph || !outNumberOfNodes) {
        return paramErr;
    }
    *outNumberOfNodes = static_cast<UInt32>(graph->nodes.size());
    return noErr;
}

OSStatus AUGraphGetIndNode(AUGraph graph, UInt32 index, AUNode* outNode)
{
    if (!graph || !outNode) {
        return paramErr;
    }
    if (index >= graph->nodes.size()) {
        return kAUGraphErr_NodeNotFound;
    }
    *outNode = graph->nodes[index].id;
    return noErr;
}

OSStatus AUGraphNodeInfo(AUGraph graph, AUNode node, AudioComponentDescription* outDescription,
                         AudioUnit* outAudioUnit)
{
    if (!graph) {
        return paramErr;
    }
    OpaqueAUGraph::Node* found = graph->find(node);
    if (!found) {
        return kAUGraphErr_NodeNotFound;
    }
    if (outDescription) {
        *outDescription = found->description;
    }
    if (outAudioUnit) {
        if (!found->unit) {
            // Units exist once the graph is open.
            *outAudioUnit = nullptr;
            return kAUGraphErr_CannotDoInCurrentContext;
        }
        *outAudioUnit = found->unit.get();
    }
    return noErr;
}

OSStatus AUGraphOpen(AUGraph graph)
{
    if (!graph) {
        return paramErr;
    }
    if (graph->open) {
        return noErr;
    }
    for (OpaqueAUGraph::Node& node : graph->nodes) {
        node.unit = detail::makeAudioUnit(node.description);
        if (!node.unit) {
            for (OpaqueAUGraph::Node& made : graph->nodes) {
                made.unit.reset();
            }
            return invalidComponentID;
        }
    }
    graph->open = true;
    if (const OSStatus status = graph->applyWiring(); status != noErr) {
        return status;
    }
    graph->attachNotifies();
    return noErr;
}

OSStatus AUGraphClose(AUGraph graph)
{
    if (!graph) {
        return paramErr;
    }
    if (!graph->open) {
        return noErr;
    }
    AUGraphUninitialize(graph);
    graph->notifiedUnit = nullptr;
    for (OpaqueAUGraph::Node& node : graph->nodes) {
        node.unit.reset();
    }
    graph->open = false;
    return noErr;
}

OSStatus AUGraphIsOpen(AUGraph graph, Boolean* outIsOpen)
{
    if (!graph || !outIsOpen) {
        return paramErr;
    }
    *outIsOpen = graph->open ? 1 : 0;
    return noErr;
}

OSStatus AUGraphInitialize(AUGraph graph)
{
    if (!graph) {
        return paramErr;
    }
    if (!graph->open) {
        if (const OSStatus status = AUGraphOpen(graph); status != noErr) {
            return status;
        }
    }
    if (const OSStatus status = graph->applyWiring(); status != noErr) {
        return status;
    }
    for (OpaqueAUGraph::Node& node : graph->nodes) {
        if (const OSStatus status = graph->initializeUnit(node.unit.get(), 0); status != noErr) {
            for (OpaqueAUGraph::Node& other : graph->nodes) {
                other.unit->uninitialize();
            }
            graph->initialized = false;
            return status;
        }
    }
    graph->attachNotifies();
    graph->initialized = true;
    return noErr;
}

OSStatus AUGraphUninitialize(AUGraph graph)
{
    if (!graph) {
        return paramErr;
    }
    AUGraphStop(graph);
    for (OpaqueAUGraph::Node& node : graph->nodes) {
        if (node.unit) {
            node.unit->uninitialize();
        }
    }
    graph->initialized = false;
    return noErr;
}

OSStatus AUGraphIsInitialized(AUGraph graph, Boolean* outIsInitialized)
{
    if (!graph || !outIsInitialized) {
        return paramErr;
    }
    *outIsInitialized = graph->initialized ? 1 : 0;
    return noErr;
}

OSStatus AUGraphStart(AUGraph graph)
{
    if (!graph) {
        return paramErr;
    }
    OpaqueAUGraph::Node* output = graph->head();
    if (!output) {
        return kAUGraphErr_OutputNodeErr;
    }
    if (!graph->initialized || !output->unit || !output->unit->isInitialized()) {
        if (const OSStatus status = AUGraphInitialize(graph); status != noErr) {
            return status;
        }
    }
    return output->unit->start();
}

OSStatus AUGraphStop(AUGraph graph)
{
    if (!graph) {
        return paramErr;
    }
    OpaqueAUGraph::Node* output = graph->head();
    if (!output || !output->unit || !output->unit->isRunning()) {
        return noErr;
    }
    return output->unit->stop();
}

OSStatus AUGraphIsRunning(AUGraph graph, Boolean* outIsRunning)
{
    if (!graph || !outIsRunning) {
        return paramErr;
    }
    *outIsRunning = graph->isRunning() ? 1 : 0;
    return noErr;
}

OSStatus AUGraphConnectNodeInput(AUGraph graph, AUNode sourceNode, UInt32 sourceOutput,
                                 AUNode destNode, UInt32 destInput)
{
    if (!graph) {
        return paramErr;
    }
    OpaqueAUGraph::Node* source = graph->find(sourceNode);
    OpaqueAUGraph::Node* destination = graph->find(destNode);
    if (!source || !destination) {
        return kAUGraphErr_NodeNotFound;
    }
    if (graph->isRunning()) {
        return kAUGraphErr_CannotDoInCurrentContext;
    }
    if (graph->open && (sourceOutput >= source->unit->outputCount() ||
                        destInput >= destination->unit->inputCount())) {
        return kAudioUnitErr_InvalidElement;
    }
    for (const OpaqueAUGraph::Connection& c : graph->connections) {
        if ((c.destination == destNode && c.destinationInput == destInput) ||
            (c.source == sourceNode && c.sourceOutput == sourceOutput)) {
            return kAUGraphErr_InvalidConnection;
        }
    }
    if (graph->isUpstream(sourceNode, destNode)) {
        // The connection would close a loop.
        return kAUGraphErr_InvalidConnection;
    }
    if (graph->open && destination->unit->isInitialized() &&
        !(destination->unit->inputFormat(destInput) ==
          source->unit->outputFormat(sourceOutput))) {
        return kAudioUnitErr_Initialized;
    }
    graph->removeWiringAt(destNode, destInput);
    graph->connections.push_back({sourceNode, sourceOutput, destNode, destInput});
    if (graph->open) {
        destination->unit->connectInput(destInput, source->unit.get(), sourceOutput);
        if (graph->initialized && !source->unit->isInitialized()) {
            return graph->initializeUnit(source->unit.get(), 0);
        }
    }
    return noErr;
}

OSStatus AUGraphDisconnectNodeInput(AUGraph graph, AUNode destNode, UInt32 destInput)
{
    if (!graph) {
        return paramErr;
    }
    OpaqueAUGraph::Node* destination = graph->find(destNode);
    if (!destination) {
        return kAUGraphErr_NodeNotFound;
    }
    if (graph->isRunning()) {
        return kAUGraphErr_CannotDoInCurrentContext;
    }
    graph->removeWiringAt(destNode, destInput);
    if (destination->unit) {
        destination->unit->disconnectInput(destInput);
    }
    return noErr;
}

OSStatus AUGraphClearConnections(AUGraph graph)
{
    if (!graph) {
        return paramErr;
    }
    if (graph->isRunning()) {
        return kAUGraphErr_CannotDoInCurrentContext;
    }
    graph->connections.clear();
    graph->callbacks.clear();
    return graph->applyWiring();
}

OSStatus AUGraphSetNodeInputCallback(AUGraph graph, AUNode destNode, UInt32 destInput,
                                     const AURenderCallbackStruct* callback)
{
    if (!graph || !callback || !callback->inputProc) {
        return paramErr;
    }
    OpaqueAUGraph::Node* destination = graph->find(destNode);
    if (!destination) {
        return kAUGraphErr_NodeNotFound;
    }
    if (graph->isRunning()) {
        return kAUGraphErr_CannotDoInCurrentContext;
    }
    if (graph->open && destInput >= destination->unit->inputCount()) {
        return kAudioUnitErr_InvalidElement;
    }
    graph->removeWiringAt(destNode, destInput);
    graph->callbacks.push_back({destNode, destInput, *callback});
    if (graph->open) {
        destination->unit->setInputCallback(destInput, *callback);
    }
    return noErr;
}

OSStatus AUGraphUpdate(AUGraph graph, Boolean* outIsUpdated)
{
    if (!graph) {
        return paramErr;
    }
    if (outIsUpdated) {
        *outIsUpdated = 1;
    }
    return noErr;
}

OSStatus AUGraphAddRenderNotify(AUGraph graph, AURenderCallback proc, void* refCon)
{
    if (!graph || !proc) {
        return paramErr;
    }
    if (graph->notifies.size() >= AudioUnitInstance::kMaxRenderNotifies) {
        return kAUGraphErr_CannotDoInCurrentContext;
    }
    graph->notifies.push_back({proc, refCon});
    if (graph->notifiedUnit) {
        return graph->notifiedUnit->addRenderNotify(proc, refCon);
    }
    return noErr;
}

OSStatus AUGraphRemoveRenderNotify(AUGraph graph, AURenderCallback proc, void* refCon)
{
    if (!graph || !proc) {
        return paramErr;
    }
    if (graph->isRunning()) {
        return kAUGraphErr_CannotDoInCurrentContext;
    }
    const auto it = std::find_if(graph->notifies.begin(), graph->notifies.end(),
                                 [&](const AURenderCallbackStruct& n) {
                                     return n.inputProc == proc && n.inputProcRefCon == refCon;
                                 });
    if (it == graph->notifies.end()) {
        return paramErr;
    }
    graph->notifies.erase(it);
    if (graph->notifiedUnit) {
        graph->notifiedUnit->removeRenderNotify(proc, refCon);
    }
    return noErr;
}

} // namespace vell
