// Random runs against a std::deque; the callbacks own heap copies, so lost or twice-freed elements show.
#include <algorithm>
#include <climits>
#include <deque>
#include <random>

#include "container_kinds.h"

using namespace ctest;

namespace {

template <class K>
class Model : public ContainerTest<K> {
protected:
    using C = typename K::C;
    static constexpr std::size_t kN = 4;  // containers of the list
    static constexpr bool kRing = !K::linked && K::fifo;

    C* at(std::size_t i) {
        auto& [array, max] = list_;
        return &array[i];
    }
    // A ring keeps one slot free.
    bool full(std::size_t i) const { return !K::linked && m_[i].size() + K::fifo == slots_[i]; }
    UTIL_S32 position_of(std::size_t i, std::size_t k) const {
        return static_cast<UTIL_S32>(kRing ? (head_[i] + k) % slots_[i] : k);
    }
    // The element a lookup at `pos` of a non-empty container reaches, or -1;
    // the linked forms read a negative position as the front.
    long element_at(std::size_t i, UTIL_S32 pos) const {
        if (K::linked && pos < 0) return 0;
        const UTIL_U32 slots = slots_[i], slot = static_cast<UTIL_U32>(pos);
        if (kRing) pos = slot < slots ? static_cast<UTIL_S32>((slot + slots - head_[i]) % slots) : -1;
        return pos >= 0 && pos < static_cast<long>(m_[i].size()) ? pos : -1;
    }
    void push(std::size_t i, int v) { K::fifo ? m_[i].push_back(v) : m_[i].push_front(v); }
    int pop(std::size_t i) {
        const int v = m_[i].front();
        m_[i].pop_front();
        if (kRing) head_[i] = (head_[i] + 1) % slots_[i];
        return v;
    }

    // init_list over the live list (or one just ended), whose elements the ledger sees released.
    void new_list() {
        std::vector<C> templates;
        for (std::size_t i = 0; i < kN; ++i) {
            m_[i].clear();
            head_[i] = 0;
            slots_[i] = K::linked ? 0 : static_cast<UTIL_U32>(rng_() % 7);
            templates.push_back(K::make(Owning<K>::fun(), slots_[i]));
        }
        EXPECT_EQ(rng_() % 2 ? K::ops()->exit_list(&list_) : 0, 0);
        qtest::console([&] { ASSERT_EQ(K::ops()->init_list(&list_, templates.data(), kN), 0); });
    }

    // One random operation, then every container read back whole.
    void step() {
        const std::size_t i = rng_() % kN, j = rng_() % kN;
        const unsigned op = rng_() % 12;
        if (op == 11 && rng_() % 10 == 0) new_list();
        C *c = at(i), *in = at(j);
        std::deque<int>& m = m_[i];
        auto* ops = K::ops();
        int v = next_++;
        std::vector<int> removed;
        g = Ledger{g.live};  // only this step's callback calls
        qtest::console([&] {
            if (op <= 2) {  // insert, most often, so that containers fill up
                const UTIL_S32 want = !K::linked && slots_[i] == 0 ? -1 : full(i) ? 1 : 0;
                EXPECT_EQ(ops->insert(c, &v), want);
                if (want == 0) push(i, v);
            } else if (op == 3) {
                EXPECT_EQ(ops->remove(c), m.empty() ? 1 : 0);
                if (!m.empty()) removed.push_back(pop(i));
            } else if (op == 4) {
                int key = !m.empty() && rng_() % 3 != 0 ? m[rng_() % m.size()] : -2;
                const auto hit = std::find(m.begin(), m.end(), key);
                EXPECT_EQ(ops->search(c, &key), hit == m.end() ? -1 : position_of(i, hit - m.begin()));
            } else if (op <= 6) {
                static constexpr UTIL_S32 kOdd[] = {INT_MIN, INT_MAX, -1, -2, -3};
                const auto span = static_cast<UTIL_U32>(K::linked ? m.size() : slots_[i]) + 3;
                const UTIL_S32 pos = rng_() % 3 == 0 ? kOdd[rng_() % 5] : static_cast<UTIL_S32>(rng_() % span);
                const long k = m.empty() ? 0 : element_at(i, pos);
                if (op == 5) {
                    EXPECT_EQ(ops->modify(c, pos, &v), m.empty() ? 1 : k < 0 ? -1 : v % 5 + 2);
                    if (!m.empty() && k >= 0) m[k] = v;
                } else {
                    EXPECT_EQ(value(ops->getNodeData(c, pos)), m.empty() || k < 0 ? -1 : m[k]);
                }
            } else if (op <= 8) {
                UTIL_S32 want = m.empty() ? 1 : 0;
                if (want == 0 && !K::linked) want = slots_[j] == 0 ? -1 : i != j && full(j) ? 1 : 0;
                EXPECT_EQ(ops->transfer(c, in), want);
                EXPECT_EQ(g.moved, want == 0);
                if (want == 0) push(j, pop(i));
            } else if (op == 9) {
                removed.assign(m.begin(), m.end());
                EXPECT_EQ(ops->clear(c), 0);
                while (!m.empty()) pop(i);
            } else if (op == 10) {
                EXPECT_EQ(ops->display(c), K::linked && m.empty() ? -1 : 0);
                EXPECT_EQ(g.shown, std::vector<int>(m.begin(), m.end()));
            }
        });
        EXPECT_EQ(g.removed, removed) << "operation " << op;
        std::size_t held = 0;
        EXPECT_EQ(qtest::console([&] {
            for (std::size_t i = 0; i < kN; ++i) {
                held += m_[i].size();
                EXPECT_EQ(ops->getSize(at(i)), static_cast<UTIL_S32>(m_[i].size()));
                EXPECT_EQ(ops->getCount(at(i)), static_cast<UTIL_S32>(K::linked ? m_[i].size() : slots_[i]));
                EXPECT_EQ(ops->isEmpty(at(i)), m_[i].empty() ? UTIL_TRUE : UTIL_FALSE);
                if constexpr (!K::linked) {
                    EXPECT_EQ(ops->isFull(at(i)), full(i) ? UTIL_TRUE : UTIL_FALSE);
                }
                for (std::size_t k = 0; k < m_[i].size(); ++k) {
                    EXPECT_EQ(value(ops->getNodeData(at(i), position_of(i, k))), m_[i][k]) << i << ", " << k;
                }
            }
        }), "");
        EXPECT_EQ(g.live.size(), held);
        EXPECT_EQ(g.broken, 0);
    }

    std::mt19937 rng_;
    typename K::L list_{};
    std::deque<int> m_[kN];
    UTIL_U32 slots_[kN] = {};
    UTIL_U32 head_[kN] = {};
    int next_ = 1;
};

TYPED_TEST_SUITE(Model, Kinds);

TYPED_TEST(Model, RandomRunsMatchADequeAndReleaseEveryElementOnce) {
    this->new_list();
    for (int s = 0; s < 6000 && !this->HasFailure(); ++s) this->step();
    EXPECT_EQ(TypeParam::ops()->exit_list(&this->list_), 0);
    EXPECT_TRUE(g.live.empty()) << g.live.size() << " elements never released";
}

}  // namespace
