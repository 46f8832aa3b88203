#include "Commands.h"

#include "Session.h"
#include "SubTreeStream.h"
#include "qxObject/CSpace.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/xostream.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>

namespace handover {

namespace {

constexpr const char* PEOPLE[] = {"Ada", "Boris", "Clara"};
constexpr int STEPS_A_PART = 5; // each fifth step has parts

template <class T, class... Args>
T* Make(Args&&... args) {
    auto* const object = new T(std::forward<Args>(args)...);
    quna::RegisterGcObject(object); // from here on the collector owns it
    return object;
}

Step* MakeStep(const std::string& title, Person* inCharge) {
    auto* const step = Make<Step>();
    step->m_title = quna::xstring(title);
    step->m_inCharge = inCharge;
    return step;
}

std::string Text(const quna::Goid& goid) {
    quna::StringStream os;
    os << goid;
    return os.c_str();
}

// Every step of the project and its parts.
template <class Visit>
void ForEachStep(const Project& project, Visit&& visit) {
    for (Step* step = project.m_first.Get(); step; step = step->m_next.Get()) {
        visit(*step, false);
        for (const quna::cref<Step>& part : step->m_parts) visit(*part, true);
    }
}

Step& LastStep(const Project& project) {
    Step* step = project.m_first.GetNotNull();
    while (Step* const next = step->m_next.Get()) step = next;
    return *step;
}

// Puts a project on the desk, unless it lies there.
void PutOnDesk(Desk& desk, Project* project) {
    for (const quna::cref<Project>& reference : desk.m_projects)
        if (reference.Get() == project) return;
    desk.MarkAsDirtyWithoutTrace();
    desk.m_projects.push_back(quna::cref<Project>(project));
    quna::DeclareReachable(&desk, project, true);
}

void GoOn(const Project& project) {
    bool doIt = true;
    ForEachStep(project, [&](Step& step, bool) {
        if (step.m_done) return;
        if (doIt) {
            step.MarkAsDirtyWithoutTrace();
            step.m_done = true;
        }
        doIt = !doIt;
    });
    Step& last = LastStep(project);
    Step* const added = MakeStep("more work", nullptr);
    added->m_inCharge = project.m_first->m_inCharge; // whoever that is: the reference need not lead anywhere here
    added->m_after = &last;
    last.MarkAsDirtyWithoutTrace();
    last.m_next = added;
    quna::DeclareReachable(&last, added, true);
    Step& first = *project.m_first;
    first.MarkAsDirtyWithoutTrace();
    first.m_after = added;
}

// ---- Figures --------------------------------------------------------------------------------------------------------

struct Figures {
    int numSteps = 0;
    int numParts = 0;
    int numDone = 0;
    int numInPlace = 0;                  // steps that follow the one that they refer to
    std::map<quna::Goid, int> inCharge;  // steps and parts
    std::map<quna::OidHigh, int> spaces; // objects by the space of their identifier
};

Figures FiguresOf(const Session& session, const Project& project) {
    Figures figures;
    const Step* before = &LastStep(project);
    ForEachStep(project, [&](const Step& step, bool isPart) {
        ++(isPart ? figures.numParts : figures.numSteps);
        figures.numDone += step.m_done;
        ++figures.inCharge[session.GoidOf(step.m_inCharge.GetOid())];
        ++figures.spaces[quna::GetOid(&step).high_];
        if (isPart) return;
        figures.numInPlace += step.m_after.Get() == before;
        before = &step;
    });
    return figures;
}

// A name where there is one, and what the reference means in every store.
std::string TextOfPerson(const Session& session, const quna::cref<Person>& reference) {
    const Person* const person = reference.TryGet();
    return (person ? person->m_name.str() : std::string("somebody not in this store,")) + ' ' +
           Text(session.GoidOf(reference.GetOid()));
}

void PrintProject(const Session& session) {
    const Project& project = session.GetProject();
    const Figures figures = FiguresOf(session, project);
    std::cout << "  " << project.m_name.view() << ": " << figures.numSteps << " steps with " << figures.numParts
              << " parts, " << figures.numDone << " of them done, " << figures.numInPlace << " in their place\n";
    std::cout << "  for " << TextOfPerson(session, project.m_client) << '\n';
    std::map<quna::Goid, quna::cref<Person>> people;
    ForEachStep(project, [&](const Step& step, bool) {
        people.try_emplace(session.GoidOf(step.m_inCharge.GetOid()), step.m_inCharge);
    });
    for (const auto& [goid, person] : people)
        std::cout << "  in charge of " << figures.inCharge.at(goid) << ": " << TextOfPerson(session, person) << '\n';
    for (const auto& [oidHigh, n] : figures.spaces) {
        quna::OidSpaceGuid guid;
        session.Spaces().GetOidSpaceGuid(oidHigh, guid);
        quna::StringStream os;
        os << guid;
        std::cout << "  made in the space " << os.c_str() << ", here number " << oidHigh << ": " << n << '\n';
    }
}

// ---- Messages -------------------------------------------------------------------------------------------------------

// Sends the project and prints what that took.
Bytes SendProject(const Session& session, SubTreeSender& sender) {
    const SessionScope scope(session, quna::SharedRead);
    const quna::int64 before = sender.NumGuidsSent();
    Bytes message;
    const quna::ssize_t numObjects = sender.Send(&session.GetProject(), message);
    std::cout << "  sent " << numObjects << " objects in " << message.size() << " bytes with "
              << sender.NumGuidsSent() - before << " Guids\n";
    return message;
}

// Puts the project that arrives on the desk and prints what that took.
void ReceiveProject(const Session& session, SubTreeReceiver& receiver, const Bytes& message) {
    const SessionScope scope(session, quna::Exclusive);
    const quna::int64 before = receiver.NumGuidsReceived();
    const SubTreeReceiver::Result result = receiver.Receive(message);
    if (!result.top || result.top->GetReflectedClass() != &quna::GetReflectedClass<Project>())
        throw BadMessageError("The message has no project on top");
    PutOnDesk(session.GetDesk(), static_cast<Project*>(result.top.m_self));
    std::cout << "  received " << result.numNew << " new objects and " << result.numReplaced << " changed ones with "
              << receiver.NumGuidsReceived() - before << " Guids\n";
}

void WriteFile(const std::string& path, const Bytes& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) throw quna::FileException(("Can't write '" + path + "'").c_str(), errno);
}

Bytes ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    Bytes bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file) throw quna::FileException(("Can't read '" + path + "'").c_str(), errno);
    return bytes;
}

} // namespace

// ---- Commands -------------------------------------------------------------------------------------------------------

void Create(const std::string& storePath, int numSteps) {
    const Session session(storePath, quna::OM_CREATE_NEW);
    const SessionScope scope(session, quna::Exclusive);
    Desk& desk = session.GetDesk();
    desk.MarkAsDirtyWithoutTrace();
    for (const char* name : PEOPLE) {
        auto* const person = Make<Person>();
        person->m_name = quna::xstring(name);
        desk.m_people.push_back(quna::cref<Person>(person));
        quna::DeclareReachable(&desk, person, true);
    }
    const auto inCharge = [&](int i) { return desk.m_people[i % std::ssize(PEOPLE)].Get(); };

    auto* const project = Make<Project>();
    project->m_name = quna::xstring("North bridge");
    project->m_client = inCharge(0);
    Step* last = nullptr;
    for (int i = 0; i < numSteps; ++i) {
        Step* const step = MakeStep("step " + std::to_string(i + 1), inCharge(i));
        if (i % STEPS_A_PART == 0)
            for (const char* title : {"plan", "check"})
                step->m_parts.push_back(quna::cref<Step>(MakeStep(title, inCharge(i + 1))));
        step->m_after = last;
        (last ? last->m_next : project->m_first) = step;
        last = step;
    }
    project->m_first->m_after = last;
    PutOnDesk(desk, project); // here the project becomes persistent, with all that it owns
    PrintProject(session);
}

void Show(const std::string& storePath) {
    const Session session(storePath, quna::OM_OPEN_EXISTING);
    const SessionScope scope(session, quna::SharedRead);
    PrintProject(session);
}

void Send(const std::string& storePath, const std::string& filePath) {
    const Session session(storePath, quna::OM_OPEN_EXISTING);
    SubTreeSender sender(session.Spaces());
    WriteFile(filePath, SendProject(session, sender));
}

void Receive(const std::string& storePath, const std::string& filePath) {
    const Bytes message = ReadFile(filePath);
    const Session session(storePath, quna::OM_OPEN_ALWAYS);
    SubTreeReceiver receiver(session.Spaces());
    ReceiveProject(session, receiver, message);
    const SessionScope scope(session, quna::SharedRead);
    PrintProject(session);
}

void Work(const std::string& storePath) {
    const Session session(storePath, quna::OM_OPEN_EXISTING);
    const SessionScope scope(session, quna::Exclusive);
    GoOn(session.GetProject());
    PrintProject(session);
}

// The sender and the receiver live as long as the stream: the second message builds on what the first has introduced.
void Talk(const std::string& fromPath, const std::string& toPath) {
    const Session from(fromPath, quna::OM_OPEN_EXISTING);
    const Session to(toPath, quna::OM_OPEN_EXISTING);
    SubTreeSender sender(from.Spaces());
    SubTreeReceiver receiver(to.Spaces());
    ReceiveProject(to, receiver, SendProject(from, sender));
    {
        const SessionScope scope(from, quna::Exclusive);
        GoOn(from.GetProject());
    }
    ReceiveProject(to, receiver, SendProject(from, sender));
    const SessionScope scope(to, quna::SharedRead);
    PrintProject(to);
}

} // namespace handover
