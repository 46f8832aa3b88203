#include "Scene.h"

#include "qxObject/CSpace.h"
#include "qxObject/Registry.h"
#include "qxPersistStore/IPersistStore.h"

#include <algorithm>

namespace frameloop {

namespace {

constexpr int NUM_THINGS = 60;
constexpr int NUM_PARTS_OF_THING = 12;
constexpr int NUM_PARTS_OF_PART = 5;
constexpr int LOST_EVERY = 9;      // things
constexpr int ON_DEMAND_EVERY = 4; // things

Part* MakePart(int glyph, int radius, int angle, int speed) {
    auto* const part = new Part;
    part->m_glyph = glyph;
    part->m_radius = radius;
    part->m_angle = angle;
    part->m_speed = speed;
    return part;
}

Part* MakeRegisteredPart(int glyph, int radius, int angle, int speed, SceneFigures& figures) {
    Part* const part = MakePart(glyph, radius, angle, speed);
    quna::RegisterGcObject(part); // from here on the collector owns it
    ++figures.numParts;
    return part;
}

Part* MakeThing(int number, SceneFigures& figures) {
    Part* const thing = MakeRegisteredPart('@', 0, 0, 0, figures);
    for (int i = 0; i < NUM_PARTS_OF_THING; ++i) {
        const int angle = i * 360 / NUM_PARTS_OF_THING;
        Part* const part = MakeRegisteredPart('o', 170, angle + 7 * number, 20 + number, figures);
        for (int k = 0; k < NUM_PARTS_OF_PART; ++k)
            part->m_parts.push_back(
                quna::cref<Part>(MakeRegisteredPart('.', 60, k * 360 / NUM_PARTS_OF_PART, -90, figures)));
        thing->m_parts.push_back(quna::cref<Part>(part));
    }
    return thing;
}

// A reference to nothing so far.
quna::OID AddEmptyReference(quna::PSpace* space, Part& part) {
    const quna::OID oid = quna::AllocateOid(space, quna::GetOidHighForOidAllocations(space), false);
    quna::cref<Part> reference;
    reference.SetOid(oid);
    part.m_parts.push_back(reference);
    return oid;
}

} // namespace

void RegisterClasses() {
    static constexpr quna::dsTarget TARGET = {.m_targetName = "frameloop"};
    Register_Project_qxPersistStore();
    quna::XTarget* const target = quna::RegisterTarget(TARGET);
    _Register_Part(target);
    _Register_Scene(target);
}

SceneFigures MakeScene(quna::PSpace* space) {
    SceneFigures figures;
    auto* const scene = new Scene;
    quna::RegisterGcObject(scene);
    for (int number = 0; number < NUM_THINGS; ++number) {
        Part* const thing = MakeThing(number, figures);
        scene->m_things.push_back(quna::cref<Part>(thing));
        if (number % LOST_EVERY == 0) {
            AddEmptyReference(space, *thing);
            ++figures.numLost;
        }
        if (number % ON_DEMAND_EVERY == 0) {
            scene->m_madeOnDemand.push_back(AddEmptyReference(space, *thing));
            ++figures.numMadeOnDemand;
        }
    }
    std::sort(scene->m_madeOnDemand.begin(), scene->m_madeOnDemand.end());
    quna::AddPSpaceRoot(SCENE_ROOT, scene);
    return figures;
}

Part* MakePartOnDemand(quna::OID oid) {
    const int angle = static_cast<int>(oid.low_ * 37 % 360);
    return MakePart('*', 250, angle, 200);
}

} // namespace frameloop
