// A frame loop that never waits for the disk: it draws a scene of persistent objects 60 times a second, while its parts
// are loaded, made or found missing in the background.
#include "FrameLoop.h"
#include "PartMaker.h"
#include "Scene.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/PSpaceTxn.h"
#include "qxPersistStore/PersistStoreSettings.h"

#include <charconv>
#include <exception>
#include <iomanip>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

using namespace frameloop;

constexpr const char* USAGE = "usage: frameloop create STORE                            make a store with a scene\n"
                              "       frameloop draw STORE [--frames N] [--no-wait]     draw it, 60 frames a second\n"
                              "\n"
                              "  --frames N   end after N frames; otherwise when everything has been drawn\n"
                              "  --no-wait    one frame after the other\n";

constexpr const char* SPACE_NAME = "frameloop";

// A store with the space of the scene, which is the thread's current one.
class OpenScene {
public:
    OpenScene(const std::string& path, quna::EOpenMode mode)
        : m_store(quna::OpenPersistStore(path.c_str(), mode, quna::PersistStoreSettings())),
          m_space(OpenSpace(m_store, mode)) {
        quna::SetThreadPSpace(m_space);
        quna::SetThreadCSpace(quna::GetCSpace(m_space));
    }
    OpenScene(const OpenScene&) = delete;
    OpenScene& operator=(const OpenScene&) = delete;
    ~OpenScene() noexcept(false) {
        quna::SetThreadCSpace(nullptr);
        quna::SetThreadPSpace(nullptr);
        quna::UndoInDestructor("OpenScene", m_uncaughtAtConstruction, [this] {
            quna::Close(m_space);
            quna::Close(m_store);
        });
    }

    quna::PSpace* Space() const { return m_space; }
    // The root stays in memory: references are followed from there.
    Scene& GetScene() const {
        const quna::CSpaceLock lock(quna::Exclusive);
        const quna::ptr<quna::IPersistable> root = quna::GetPSpaceRoot(SCENE_ROOT);
        if (!root) throw std::runtime_error("The store has no scene");
        quna::AddGcRoot(root);
        return *static_cast<Scene*>(root.m_self);
    }

private:
    static quna::PSpace* OpenSpace(quna::PersistStore* store, quna::EOpenMode mode) {
        try {
            return quna::OpenPSpace(store, SPACE_NAME, mode, nullptr);
        } catch (...) {
            quna::Close(store);
            throw;
        }
    }

    const int m_uncaughtAtConstruction = std::uncaught_exceptions();
    quna::PersistStore* const m_store;
    quna::PSpace* const m_space;
};

void Create(const std::string& path) {
    const OpenScene open(path, quna::OM_CREATE_NEW);
    SceneFigures figures;
    {
        const quna::PSpaceTxn txn(quna::Exclusive);
        figures = MakeScene(open.Space());
    }
    std::cout << "A scene of " << figures.numParts << " parts, with " << figures.numLost
              << " references to nothing and " << figures.numMadeOnDemand
              << " to parts that are made when somebody looks there\n";
}

void Draw(const std::string& path, const LoopSettings& settings) {
    const OpenScene open(path, quna::OM_OPEN_EXISTING);
    const Scene& scene = open.GetScene();
    PartMaker maker(open.Space(), {scene.m_madeOnDemand.begin(), scene.m_madeOnDemand.end()});
    const LoopFigures figures = RunLoop(open.Space(), scene, settings);
    std::cout << figures.numFrames << " frames, " << figures.numLateFrames << " of them late; the longest took "
              << std::fixed << std::setprecision(2) << figures.longestFrameMs << " ms, the longest wait for the lock "
              << figures.longestLockWaitMs << " ms\n"
              << "at the end: " << figures.last.numBound << " bound, " << figures.last.numPending << " pending, "
              << figures.last.numMissing << " missing; " << maker.NumMade() << " parts made on demand\n";
}

int ParseCount(const std::string& text) {
    int n = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), n);
    if (error != std::errc() || end != text.data() + text.size() || n < 1)
        throw std::invalid_argument("'" + text + "' is no number of frames");
    return n;
}

// False when the arguments are no command.
bool Run(const std::vector<std::string>& args) {
    if (args.size() == 2 && args[0] == "create") {
        Create(args[1]);
        return true;
    }
    if (args.size() < 2 || args[0] != "draw") return false;
    LoopSettings settings;
    settings.animate = ::isatty(STDOUT_FILENO) != 0;
    for (std::size_t i = 2; i < args.size(); ++i) {
        if (args[i] == "--no-wait")
            settings.wait = false;
        else if (args[i] == "--frames" && i + 1 < args.size())
            settings.numFrames = ParseCount(args[++i]);
        else
            return false;
    }
    Draw(args[1], settings);
    return true;
}

} // namespace

int main(int argc, char** argv) {
    try {
        RegisterClasses();
        if (Run(std::vector<std::string>(argv + 1, argv + argc))) return 0;
        std::cerr << USAGE;
        return 2;
    } catch (const std::exception& e) {
        std::cerr << "frameloop: " << e.what() << '\n';
        return 1;
    }
}
