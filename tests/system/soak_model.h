/* Players that one client alone commands, each with a model of what its commands must have led to.
 * The model knows nothing of the service but the documented rules of playing. */
#ifndef TEST_SOAK_MODEL_H
#define TEST_SOAK_MODEL_H

#include "soak.h"

constexpr int32_t SOAK_UNKNOWN = -1;
constexpr unsigned SOAK_MODELS = 3; /* players "model0" ... on the sources of these names */

/* What a listener would say of the player. */
struct soak_model {
    bool has_session = false;
    int folder = 0;
    uint64_t ts_id = 0;
    int32_t status = LYR_STATUS_IDLE;
    int32_t shuffle = 0;
    int32_t repeat = 0;
    int32_t current = 0;
    int32_t position = 0;
    float rate = 1;
    int32_t place = 0;          /* of the current track in the order that is played */
    std::vector<int32_t> order; /* track at a place; SOAK_UNKNOWN until the player has been there */
    unsigned status_epoch = 0;  /* of the arbiter when the status came about; odd: it is open */
};

struct soak_player {
    std::string name; /* of its source, too */
    int32_t source = -1;
    request_client client;
    fake_client fake;
    std::mt19937 random;
    soak_model model;
};

/* Tracks in a folder of the models' sources. */
constexpr int SOAK_FOLDERS = 4;
int32_t soak_tracks_of(int folder);

/* One random command or event, compared with what it had to give, and the objects afterwards. */
void soak_model_step(soak& soak, soak_player& player);
/* Compares what is published of a player with its model. */
void soak_model_check_objects(soak& soak, const soak_player& player, const char* when);
/* Whether the arbiter may have changed the status since the last command. */
bool soak_model_status_is_open(const soak& soak, const soak_model& model);
void soak_model_set_order(soak_model& model, bool is_drawn);

/* Scripts for the plug-in "disk": the sources of the models and their trees. */
std::string soak_model_script();

/* Connects the clients and opens their players. With `is_back` what the models know must be there
 * again, else the players begin anew. */
void soak_models_join(soak& soak, bool is_back);
/* The actor of one player. */
void soak_model_client(soak& soak, unsigned number);
/* At a quiet moment: compares everything that is published and answered. */
void soak_models_check(soak& soak);
/* Waits until the last-mode database has what the models know. */
void soak_models_await_saved(const soak& soak);
/* Hangs up. */
void soak_models_leave();

#endif
