#pragma once

#include <functional>
#include <string>
#include <vector>

#include "ContentHelper.h"

// Opens the protected fields to a test, and remembers which hooks were called.
class OpenHelper : public CContentHelper {
public:
    OpenHelper() = default;
    OpenHelper(const std::string& path, const std::string& name, int version)
        : CContentHelper(path, name, version) {}

    using CContentHelper::m_database;
    using CContentHelper::m_dbName;
    using CContentHelper::m_dbPath;
    using CContentHelper::m_dbVersion;
    using CContentHelper::m_pLock;

    void OnConfigure(CVantryConnection* pConnection) override {
        hooks.emplace_back("OnConfigure");
        connections.push_back(pConnection);
        if (onConfigure) {
            onConfigure(pConnection);
        }
    }
    void OnCreate(CVantryConnection* pConnection) override {
        hooks.emplace_back("OnCreate");
        connections.push_back(pConnection);
    }
    void OnUpgrade(CVantryConnection* pConnection, int oldVersion, int newVersion) override {
        hooks.push_back("OnUpgrade " + std::to_string(oldVersion) + " " + std::to_string(newVersion));
        connections.push_back(pConnection);
    }

    std::vector<std::string> hooks;
    std::vector<CVantryConnection*> connections;
    std::function<void(CVantryConnection*)> onConfigure;
};

// Opens the protected fields of a lock.
struct OpenLock : CDBLock {
    static const std::string& Name(const CDBLock& lock) { return lock.*(&OpenLock::m_name); }
    // Whether somebody holds it.
    static bool IsHeld(CDBLock& lock) {
        pthread_mutex_t& mutex = lock.*(&OpenLock::m_mutex);
        if (pthread_mutex_trylock(&mutex) != 0) {
            return true;
        }
        pthread_mutex_unlock(&mutex);
        return false;
    }
};
