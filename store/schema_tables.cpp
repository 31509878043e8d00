// The tables of the system in load order, with their columns in order. A column with "+"
// behind it is indexed, one with "!" is enciphered in the row files; neither mark is part
// of the name. Adding a column at the end of a list needs no conversion of old rows.
#include "store/schema.h"

const SchemaTable schema_tables[] = {
    {"domains", SchemaKind::table, 0,
     "name+ display cfn_timeout mb_timeout mb_size mb_pinsize mb_enter_pin mb_min_dur "
     "mb_offer_cell mb_policy trust_callerid disa_cid mb_prefix max_mb_duration mb_compress "
     "code_park code_retrieve code_pickup code_connect code_return code_redial code_cfr "
     "code_cfaa code_cfae code_cfad code_cfat code_cfbe code_cfbd code_cfne code_cfnd "
     "code_bcide code_bcidd code_banoe code_banod code_dnde code_dndd code_dndt "
     "code_roomcleaned code_agent_login code_agent_logout code_agent_toggle code_play_recs "
     "code_clrvm code_intercom code_govm code_rec code_transfer code_conf code_trace code_vme "
     "code_vmd code_barge code_listen code_teach code_mixin code_white code_black code_dnc "
     "code_page code_seize code_unseize code_readvm code_callcell code_wakeup code_credit "
     "code_cleanup code_c1 code_c2 code_c3 code_cm code_sa email_from email_user email_pass! "
     "email_smtp email_starttls email_cdr cdr_time default_dialplan max_extensions "
     "max_attendants max_callingcards max_hunts max_hoots max_srvflags max_ivrnodes max_alerts "
     "max_acds max_conferences max_colines max_calls max_trunk_calls max_trunk_notify "
     "max_call_duration voice2text spamreject anonymous sms_enabled sms_ani sms_provider "
     "sms_username sms_password sms_recv_prefix rec_enabled lastdigits show_cell visible "
     "prov_proxy mailbox_escape record_annoucement lang_audio lang_patterns lang_tones flag "
     "night moh tz siptrans dp country_code area_code outbound_chars lang_web voicemail canon "
     "park_reminder pickups orbits e911 edest e911_emails e911_ani epage efile rec_hunt "
     "rec_acd rec_extension rec_internal rec_external rec_911 rec_custid rec_siteid reset_dnd+ "
     "reset_hot+ reset_block_cid+ reboot_phones+ camp_enabled last_cmc mailbox_call "
     "record_start record_end park_call end_call prov_user prov_pass! prov_pin! prov_lineup "
     "charge_beep cdr_adr cdr_user cdr_pass! cdr_keep rec_keep login_keep ani fani faxname "
     "anipolicy max_regs parm1 parm2 parm3 credit recharge defaa seven_digits trback "
     "email_dom_black_call rb rbb cmcmode play_envelope midnight_logout+ welcome_email "
     "delete_alias rec_message t38_switch urc display_format mb_fail_count lync_address "
     "code_ob code_echo cdr_as_att cdr_trunks default_location extn_pai extn_ppi max_idle "
     "log_level sms_adr sms_method sms_header sms_body_voicemail sms_body_other "
     "notification_url acturl_call! acturl_wakeupcall! acturl_clearwakeup! "
     "acturl_missedwakeup! wakeup_fail_email acturl_dnd! acturl_cleardnd! acturl_roomcleaned! "
     "acturl_emergency! acturl_newcall! acturl_connect! acturl_mailbox! uhll_adr uhll_dmm "
     "uhll_type uhll_call_charge uhll_maid_code uhll_dnd room2room roomrec roomdp0 roomdp1 "
     "billing_start bill_customer bill_admin bill_data bill_plan msggrp msgpre callclassroom "
     "dndflag dnd_duration anonymous_spam_score score_found score_not_found adrbook_pref "
     "include_local appexts appcalls spam_threshold hubspot_api_key! hubspot_settings "
     "csta_username csta_password! csta_address acme_id! google_signin_id ignore_star_cdr "
     "google_client_id google_client_secret cp_group assign_to_acd crm_system crm_public "
     "crm_secret! cell_night hours_mon hours_tue hours_wed hours_thu hours_fri hours_sat "
     "hours_sun hours_holiday"},
    {"domain_alias", SchemaKind::table, 0,
     "domain+ name+"},
    {"users", SchemaKind::table, 0,
     "alias domain+ type+ id+ disabled ename dialog_state dialog_version dial_plan param1 "
     "param2 param3 epid+ ani acdani sani fani email_cdr credit rf rb cdr_time cdr_as_att "
     "max_cdrs max_call_duration location+ visible view_settings anonymous_spam_score "
     "spam_threshold acturl_call! acturl_wakeupcall! acturl_clearwakeup! acturl_missedwakeup! "
     "acturl_dnd! acturl_cleardnd! acturl_roomcleaned! acturl_emergency! acturl_newcall! "
     "acturl_connect! acturl_mailbox! oauth_list google_calendar department+ building+"},
    {"user_alias", SchemaKind::table, 0,
     "user+ domain+ name+ display text wav comment type+ trunk+"},
    {"groups", SchemaKind::table, 0,
     "name domain+ owner+ data scope"},
    {"group_members", SchemaKind::table, 0,
     "ref+ user+ sort"},
    {"group_access", SchemaKind::table, 0,
     "ref+ user+"},
    {"group_permissions", SchemaKind::table, 0,
     "ref+ name+"},
    {"admins", SchemaKind::table, 0,
     "name+ domain+ password! email phone adr"},
    {"extensions", SchemaKind::table, 0,
     "password! web_pass! sip_hist web_hist web_recover! ldap_pass! app_pass! dial_plan "
     "first_name display_name auth_adr mb_enable mb_timeout mb_pin! mb_size mb_offer_cell "
     "mb_policy fax faxname t38_switch mb_play_env email_address email_recadr email_vmail "
     "vmail_option email_missed email_mb_full email_all email_status email_black_call "
     "block_cid anonymous cfr+ cfa cfa_times cfa_numbers cfb cfb_times cfb_numbers bob cfn "
     "cfn_timeout cfn_times cfn_numbers cfd hunt hunt_condition loggedout dnd dnd_reason "
     "dnd_duration dnd_expiry dndflag vm_indicator ua_type name_use name_aa personal "
     "personal_greetings record_annoucement call_return call_redial callback mailbox_access "
     "delcopies log_register rec_extension rec_internal rec_external rec_911 avail tz siptrans "
     "lang_web lang_audio lines cw cell_dis cell_in sms_enabled cell_mwi cell_retries "
     "cell_pause super_mwi super_number super_number2 super_number3 super_number4 "
     "super_number5 super_retries super_retries2 super_retries3 super_retries4 super_retries5 "
     "super_pause super_pause2 super_pause3 super_pause4 super_pause5 cell_time cell_night "
     "cell_hunt cell_acd cell_conn cell_c2d cell_never cell_always pound2 hours_mon hours_tue "
     "hours_wed hours_thu hours_fri hours_sat hours_sun hours_holiday picture tagline codecs "
     "pcap+ syslog mailbox_escape mailbox_escape9 profile pnp_open orbits pickups active_calls "
     "edest eani wakeup checked_in access_level showacd max_regs adrbook_pref include_local "
     "position no_vpa from_header cell_callback cell_callback_dest door_url use_acd_dp "
     "num_acds wakeup_fail_email mailbox_group moh melody lastcall total_reg lync_username "
     "lync_authname lync_password! lync_uuid extcall extts euse+ actsync_username "
     "actsync_password! actsync_address actsync_cert actsync_calendar actsync_room "
     "actsync_timer carddav_email xmpp_adr wrtc_register crm_username crm_password! "
     "crm_address crm_type ui_data counterpath cp_group cp_servicelevel zoiper score_found "
     "score_not_found disable_cell disable_app disable_voip voice2text appexts appcalls"},
    {"apptokens", SchemaKind::table, 0,
     "token+ user+ expires"},
    {"emails", SchemaKind::lazy, 0,
     "adr+ body retry domain to addresses header"},
    {"extlog", SchemaKind::lazy, 0,
     "u+ t a w m"},
    {"login", SchemaKind::lazy, 0,
     "e+ g+ t a r"},
    {"weblogin", SchemaKind::lazy, 0,
     "account+ domain+ url address stamp failures success ua"},
    {"macs", SchemaKind::table, 0,
     "adr+ macpin! domain+ user+ pass! buttons templ+ vendor model version check-sync rps"},
    {"btmpl", SchemaKind::table, schema_tlvb,
     "name domain+ buttons models defaults"},
    {"cells", SchemaKind::table, schema_memory,
     "number+ user+ out"},
    {"attendants", SchemaKind::table, 0,
     "wavfile wf1 wf2 wf3 wf4 wf5 wc1 wc2 wc3 wc4 wc5 flag night timeout operator name_trigger "
     "min_digits first_lang second_lang code_0 code_1 code_2 code_3 code_4 code_5 code_6 "
     "code_7 code_8 code_9 input_0 input_1 input_2 input_3 input_4 input_5 input_6 input_7 "
     "input_8 input_9 prompt_0 prompt_1 prompt_2 prompt_3 prompt_4 prompt_5 prompt_6 prompt_7 "
     "prompt_8 prompt_9 def_gap gap_0 gap_1 gap_2 gap_3 gap_4 gap_5 gap_6 gap_7 gap_8 gap_9 "
     "completion action parameter record_code record_ext verify hangup display se sd sl "
     "answer_wait welcome_loop special_key play_def def_file name_confirm moh muting "
     "from_header att_vpa anonymous_dest announce digit_timeout"},
    {"autocallback", SchemaKind::table, schema_memory,
     "fuser tuser number ts active"},
    {"callingcards", SchemaKind::table, 0,
     "display block_cid num_id intern callback balthres autodial"},
    {"hunts", SchemaKind::table, 0,
     "st1_ext st1_dur st1_miss st2_ext st2_dur st2_miss st3_ext st3_dur st3_miss st4_ext "
     "melody from_header display flag night rec moh conn_sym ncf hunt_anonymous_dest email "
     "connect crm_account ext_blink algo state fra allow_redirect announce"},
    {"hoots", SchemaKind::table, 0,
     "ext display mode ip codec record playback wavfile announce p2p email emailstart transfer "
     "start_page_audio end_page_audio acturl_settings call_mode call_first"},
    {"srvflags", SchemaKind::table, 0,
     "state last display allow_ext pin mode+ invert mon tue wed thu fri sat sun holiday hol "
     "sound today tz page audio1 audio2"},
    {"ivrnodes", SchemaKind::table, 0,
     "wavfile match match_from match_to soap_uri display timeout mute language acturl_settings "
     "acturl_regex csta rec"},
    {"alerts", SchemaKind::table, 0,
     "name"},
    {"acds", SchemaKind::table, 0,
     "wavfile0 wavfile1 wavfile2 wavfile3 wavfile4 wavfile5 wavfile6 wavfile7 wavfile8 "
     "wavfile9 flag0 flag1 flag2 flag3 flag4 flag5 flag6 flag7 flag8 flag9 cond1 cond2 cond3 "
     "cond4 cond5 parm1 parm2 parm3 parm4 parm5 color1 color2 color3 color4 color5 all_agents "
     "pool1 pool2 pool3 pool4 pool5 gap_time ignore_login distribution recover_time melody ecf "
     "ecc im timeout redirect act0 act1 act2 act3 act4 act5 act6 act7 act8 act9 key0 key1 key2 "
     "key3 key4 key5 key6 key7 key8 key9 keyf flag night speed_limit last_state from_header "
     "display algorithm ipos delay usage jump contyp wait_time wait_dest acd_anonymous_dest "
     "moh ringback add_cmc add_adr last_adr offer_callback announce_callback callback_dialplan "
     "minstaff rec policy readpos posthres readrec readwait lastwait autologout prio maxcall "
     "multicall parallel_ring soap_welcome muting ncf max_call_action max_call_dest connect "
     "hangup_policy wuc callup cudis cuma cumw cumt cuto cuco cugap crm_account ext_blink "
     "missed_duration add_missed change_callerid midnight_logout rate_method rate_trigger "
     "rate_redirect allow_redirect announce"},
    {"conferences", SchemaKind::table, 0,
     "name type pin+! upin+! length intro language moh numbers limit conflangs mod_enter "
     "mod_exit record compress"},
    {"orbits", SchemaKind::table, 0,
     "name moh reminder destination msg"},
    {"schedules", SchemaKind::table, 0,
     "id+ name upin+ mpin+ start end moderator+ emails numbers record mod_enter mod_exit "
     "initiate_call+ status"},
    {"wipers", SchemaKind::table, 0,
     "context+ name+ info domain"},
    {"registrations", SchemaKind::table, 0,
     "domain+ from to fuser+ tuser+ start accounted date ad contact instance+ callid+ event+ "
     "parameter+ www user_agent adr socket body ct un"},
    {"regidx", SchemaKind::table, schema_memory,
     "user+ reg+ event+"},
    {"fcmregs", SchemaKind::table, 0,
     "token+ ref device+ ts domain+ user+ ua"},
    {"dial_plan", SchemaKind::table, 0,
     "name domain+ global+ dnc glob starcodes internal"},
    {"dial_plan_entry", SchemaKind::table, 0,
     "id+ preference trunk pattern replacement cmc sf dis"},
    {"cobjs", SchemaKind::table, schema_runtime,
     "id+ leg ofrom oto from to t0 t1 sc ss st ds dw dr dt hs dh tr state type+ is+ if i1 i2 "
     "i3 i4+ i5 i6 i7 i8 iu+ il+ ia+ domain+ clip flag lang diversion loop cmc priority tp "
     "cdrid dialplan history wuc score pcap dtmf missed rating referred_by melody nolog+"},
    {"legs", SchemaKind::table, schema_runtime,
     "ref+ id+ domain+ cid+ ext+ trunk+ reg inbound from to ppi pai rpi state+ prevstate code "
     "start ring connect stamp last dtmfhist party cu cr cl cp cd cn cc rate sec codec ua tap "
     "listener+ source rm reci prio stat number reason redirect cell_leg history moh teamshold "
     "refnot cdrinfo"},
    {"syncedcontacts", SchemaKind::table, schema_tlvb,
     "domain+ user+ display_number number+ number2+ mobile+ first name type agent"},
    {"adrbook", SchemaKind::table, schema_tlvb,
     "domain+ user+ number+ mobile+ fax+ first name company email position speed+ "
     "display_number display_mobile display_fax type tag cmc+ comment expires+ agent dnc "
     "melody category+"},
    {"chat", SchemaKind::lazy, 0,
     "r+ i c t p m"},
    {"chist", SchemaKind::lazy, 0,
     "n+ e+ u+ l+ d+ r+ s"},
    {"messages", SchemaKind::table, 0,
     "user+ from to dest did start+ duration new urgent type+ filename+ comment+ callid+ avail "
     "when delcopy text mp3"},
    {"trunks", SchemaKind::table, 0,
     "name type domain+ code uuid dir dis global+ reg_display reg_account reg_registrar "
     "wrtc_dest_name wrtc_dest_number reg_keep reg_user reg_pass! require other_headers icid "
     "bcp outbound_proxy remote_party dial_extension status minor staadr trusted redirect "
     "rfcrtp behind_nat rtcpxr use_sdes use_uuid pidflo info_agent reregister_dns use_history "
     "ring180 t38_enabled earlymedia failover glob country_code area_code request_timeout "
     "codecs codec_lock codec_count pcap+ spam stir expires fraction minimum send_email "
     "from_user from_source tel analog rtp_begin rtp_end sip_port prack sdpreq ice use_epid "
     "dtmf aadr interoffice dialplan dtmf_mode hru hf ht hpai hppi hrpi hpr hcv ignore_18x_sdp "
     "cid_update contact_hdr user_defined_hdr hd cobusy codest teams+ prefix ani_regular "
     "ani_emergency"},
    {"colines", SchemaKind::table, 0,
     "trunk+ type leg+ user+ ts on ov oh in iv ih"},
    {"mohs", SchemaKind::table, 0,
     "name type seek file volume domain+ act0 act1 act2 act3 act4 act5 act6 act7 act8 act9 "
     "acts actp key0 key1 key2 key3 key4 key5 key6 key7 key8 key9 keys keyp"},
    {"audiofiles", SchemaKind::table, 0,
     "name atype desc domain+"},
    {"pnp_parms", SchemaKind::table, 0,
     "domain+ user+ name+ value"},
    {"accesslist", SchemaKind::table, 0,
     "adr mask type comment"},
    {"webpages", SchemaKind::table, schema_tlvb,
     "name+ domain+ user+ content original comment timestamp"},
    {"certificates", SchemaKind::table, 0,
     "private! public subject+ type"},
    {"locations", SchemaKind::table, 0,
     "domain+ name comment street apartment city state zip country latitude longitude "
     "timestamp url"},
    {"images", SchemaKind::table, schema_tlvb,
     "domain+ user+ category content mime resolution modified version"},
    {"billcfg", SchemaKind::table, schema_tlvb,
     "name data rates"},
    {"billdata", SchemaKind::table, 0,
     "domain month year day read ext extm extt exth extr exta extc extl acd conf"},
    {"billcdr", SchemaKind::lazy, 0,
     "d+ s y+ m r c t l"},
    {"cdrt", SchemaKind::lazy, 0,
     "cid+ f t o r l+ i+ u d+ s c e k p vq cmc dtmf rec ruser y x tc mos"},
    {"cdr", SchemaKind::lazy, 0,
     "i+ d+ f+ t+ w r p t0 t1 t2 y+ n+ calledback"},
    {"cdre", SchemaKind::lazy, 0,
     "cid+ i+ f+ t+ o u+ r d+ idle s sd+ c e p vq ct+ cmc dtmf y xc rd+ dl+ ua"},
    {"cdri", SchemaKind::lazy, 0,
     "cid+ y u+ e+ f t d+ l c s ds+ di dr dt dh dl r ic im"},
    {"gstatm", SchemaKind::lazy, 0,
     "month+ group+ content"},
    {"astatm", SchemaKind::lazy, 0,
     "month+ agent+ group+ content"},
    {"gstatw", SchemaKind::lazy, 0,
     "week+ group+ content"},
    {"astatw", SchemaKind::lazy, 0,
     "week+ agent+ group+ content"},
    {"gstatd", SchemaKind::lazy, 0,
     "day+ group+ content"},
    {"astatd", SchemaKind::lazy, 0,
     "day+ agent+ group+ content"},
    {"gstath", SchemaKind::lazy, 0,
     "hour+ group+ content"},
    {"astath", SchemaKind::lazy, 0,
     "hour+ agent+ group+ content"},
    {"recs", SchemaKind::lazy, 0,
     "c+ t+ r+ f+ a+ e+ d+ s+ F+ T+ D C n l"},
    {"outbounds", SchemaKind::lazy, 0,
     "number+ name status+ time user+ atts pos"},
};
const int schema_table_count = static_cast<int>(sizeof(schema_tables) / sizeof(schema_tables[0]));
