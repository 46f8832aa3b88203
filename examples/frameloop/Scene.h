// The persistent classes of the example: a scene of things, which have parts, which have parts.
#pragma once

#include "qxPersistStore/OID.h"
#include "qxPersistStore/PersistentMembers.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/xvector.h"

namespace quna {
class PSpace;
} // namespace quna

namespace frameloop {

// The name under which the scene is found.
inline constexpr const char* SCENE_ROOT = "scene";

// Something to be drawn as one character. It moves in a circle around what it is a part of, and its own parts around it.
class Part : public quna::PersistentObject<Part> {
public:
    static constexpr auto Members() {
        return quna::MemberList(quna::Member("glyph", &Part::m_glyph), quna::Member("radius", &Part::m_radius),
                                quna::Member("angle", &Part::m_angle), quna::Member("speed", &Part::m_speed),
                                quna::Member("parts", &Part::m_parts));
    }

    quna::int32 m_glyph = 'o';
    quna::int32 m_radius = 0; // hundredths of a line
    quna::int32 m_angle = 0;  // degrees, at the beginning
    quna::int32 m_speed = 0;  // degrees a second
    quna::xvector<quna::cref<Part>> m_parts;
};

class Scene : public quna::PersistentObject<Scene> {
public:
    static constexpr auto Members() {
        return quna::MemberList(quna::Member("things", &Scene::m_things),
                                quna::Member("madeOnDemand", &Scene::m_madeOnDemand));
    }

    quna::xvector<quna::cref<Part>> m_things;
    // Parts of which there is only the reference, until somebody looks there. Ascending.
    quna::xvector<quna::OID> m_madeOnDemand;
};

QX_REFLECT_PERSISTENT_CLASS(Part, "frameloop::Part")
QX_REFLECT_PERSISTENT_CLASS(Scene, "frameloop::Scene")

// Makes the library's types and both classes known to the process. Once, before a store is opened.
void RegisterClasses();

struct SceneFigures {
    int numParts = 0;        // that exist
    int numLost = 0;         // references to parts that do not exist
    int numMadeOnDemand = 0; // references to parts that are made when somebody looks there
};

// Makes a scene and all its parts persistent, as the root of the space. Requires: the space is locked exclusively, and
// the thread's current one.
SceneFigures MakeScene(quna::PSpace* space);

// The part that belongs under an OID of Scene::m_madeOnDemand: always the same. The caller registers it.
Part* MakePartOnDemand(quna::OID oid);

} // namespace frameloop
