// The persistent classes of the example: an office that plans projects, whose steps people are in charge of.
#pragma once

#include "qxPersistStore/PersistentMembers.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/xstring.h"
#include "qxUtils/xvector.h"

namespace handover {

// Stays in the office: projects refer to people, and own none.
class Person : public quna::PersistentObject<Person> {
public:
    static constexpr auto Members() { return quna::MemberList(quna::Member("name", &Person::m_name)); }

    quna::xstring m_name;
};

// Owns its parts and the step that follows it, so a project is as deep as it is long.
class Step : public quna::PersistentObject<Step> {
public:
    static constexpr auto Members() {
        return quna::MemberList(quna::Member("title", &Step::m_title), quna::Member("done", &Step::m_done),
                                quna::Member("inCharge", &Step::m_inCharge).Parent(),
                                quna::Member("after", &Step::m_after).Parent(), quna::Member("parts", &Step::m_parts),
                                quna::Member("next", &Step::m_next));
    }

    quna::xstring m_title;
    bool m_done = false;
    quna::cref<Person> m_inCharge; // leads out of the project
    quna::cref<Step> m_after;      // the step before it; at the first one the last, which closes a circle
    quna::xvector<quna::cref<Step>> m_parts;
    quna::cref<Step> m_next;
};

class Project : public quna::PersistentObject<Project> {
public:
    static constexpr auto Members() {
        return quna::MemberList(quna::Member("name", &Project::m_name),
                                quna::Member("client", &Project::m_client).Parent(),
                                quna::Member("first", &Project::m_first));
    }

    quna::xstring m_name;
    quna::cref<Person> m_client;
    quna::cref<Step> m_first;
};

// The root of a store.
class Desk : public quna::PersistentObject<Desk> {
public:
    static constexpr auto Members() {
        return quna::MemberList(quna::Member("people", &Desk::m_people), quna::Member("projects", &Desk::m_projects));
    }

    quna::xvector<quna::cref<Person>> m_people;
    quna::xvector<quna::cref<Project>> m_projects;
};

QX_REFLECT_PERSISTENT_CLASS(Person, "handover::Person")
QX_REFLECT_PERSISTENT_CLASS(Step, "handover::Step")
QX_REFLECT_PERSISTENT_CLASS(Project, "handover::Project")
QX_REFLECT_PERSISTENT_CLASS(Desk, "handover::Desk")

// Makes the library's types and these classes known to the process. Once, before a store is opened.
void RegisterClasses();

} // namespace handover
