#pragma once

class Capabilities {
public:
    static Capabilities& getInstance();
    int getProductFamily();
};
