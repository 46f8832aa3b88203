// What the program can do, one function a command. Each prints what it does and throws when it can't.
#pragma once

#include <string>

namespace handover {

// Lays down a new store with people and a project of so many steps.
void Create(const std::string& storePath, int numSteps);

// Prints the project: how far it is, and who is in charge.
void Show(const std::string& storePath);

// Writes the project, with all that it owns, to a file.
void Send(const std::string& storePath, const std::string& filePath);

// Takes a project from a file into a store, which is made if there is none.
void Receive(const std::string& storePath, const std::string& filePath);

// Goes on with the project: half of the steps that are open get done, and a step is added at the end.
void Work(const std::string& storePath);

// Sends the project twice from one store to the other over one stream, with work in between.
void Talk(const std::string& fromPath, const std::string& toPath);

} // namespace handover
