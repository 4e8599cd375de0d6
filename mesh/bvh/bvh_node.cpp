#include "bvh_node.h"

namespace zrbvh {

BvhInnerNode::~BvhInnerNode() {
    delete children[0];
    delete children[1];
}

BvhTree::~BvhTree() { delete root; }

}  // namespace zrbvh
